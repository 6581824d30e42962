// Analyzers that answer by list, and the fixture's parts.
#include "tests/support/connect_fixture.h"

#include <algorithm>
#include <atomic>
#include <utility>

ScriptedAnalyzer::Script AnswerInOrder(std::vector<ScriptedAnswer> answers) {
    const auto next = std::make_shared<std::atomic<std::size_t>>(0);
    return [answers = std::move(answers), next](const SeenRequest& request, AnalyzerConnection& connection) {
        connection.Answer(request, answers[std::min(next->fetch_add(1), answers.size() - 1)]);
    };
}
