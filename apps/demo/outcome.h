// A played case held against its promise. Pure functions over what was collected.
#pragma once

#include "apps/demo/stage.h"

#include <string>
#include <vector>

struct Outcome {
    const Case* scene = nullptr;
    ClientRun run;
    std::vector<Question> told;        ///< all that the analyzer was told of this application or destination
    std::vector<Question> questions;   ///< those of them about connects
    std::vector<Question> inspected;   ///< the ends of split connections among them
    std::vector<std::string> reports;  ///< of sends, receives and binds: operation and protocol
    std::string lastReportVerdict;
    std::vector<std::string> problems;  ///< every way in which the promise was broken

    bool Passed() const { return problems.empty(); }
};

/// `allQuestions`: the analyzer's whole log; `allVisits`: the origin servers'.
Outcome Judge(const Case& scene, const ClientRun& run, const std::vector<Question>& allQuestions,
              const std::vector<Visit>& allVisits);
