// qxdemo: the main job, visible. It starts the origin servers, the analyzer and one application per case, all
// real processes on real sockets, and prints what each of them was told and saw. Exit status 0 only if every
// case came out as promised; 1 if one did not, 2 for wrong usage or a stage that could not be set up, 130
// when interrupted.
#include "apps/demo/interruption.h"
#include "apps/demo/outcome.h"
#include "apps/demo/report.h"
#include "apps/shared/run_main.h"

#include <algorithm>
#include <future>
#include <iostream>
#include <mutex>
#include <stdexcept>

namespace {

constexpr int kInterruptedStatus = 130;

std::vector<Case> SelectCases(const std::vector<std::string>& names) {
    if (names.empty()) return Cases();
    std::vector<Case> selected;
    for (const std::string& name : names) {
        const auto found = std::find_if(Cases().begin(), Cases().end(),
                                        [&](const Case& candidate) { return candidate.name == name; });
        if (found == Cases().end()) throw std::runtime_error("there is no case \"" + name + "\"; see --list");
        selected.push_back(*found);
    }
    return selected;
}

void Announce(const Case& scene, pid_t processId) {
    static std::mutex lock;
    const std::lock_guard<std::mutex> hold(lock);
    std::cout << "process " << processId << " plays " << scene.name << std::endl;
}

/// Plays all cases at the same time; the outcomes are in the order of the cases.
std::vector<Outcome> PlayAll(const std::vector<Case>& cases, const ApplicationPrograms& applications,
                             bool announce, std::string* errorOutput) {
    Stage stage(cases, applications);
    std::vector<std::future<ClientRun>> runs;
    runs.reserve(cases.size());
    for (const Case& scene : cases) {
        runs.push_back(std::async(std::launch::async, [&stage, &scene, announce] {
            return stage.Play(scene, [&scene, announce](pid_t processId) {
                if (announce) Announce(scene, processId);
            });
        }));
    }
    std::vector<ClientRun> finished;
    finished.reserve(runs.size());
    for (auto& run : runs)
        finished.push_back(run.get());

    std::vector<Outcome> outcomes;
    const std::vector<Question>& questions = stage.AllQuestions();
    for (std::size_t i = 0; i < cases.size(); ++i)
        outcomes.push_back(Judge(cases[i], finished[i], questions));
    *errorOutput = stage.ErrorOutput();
    return outcomes;
}

int ListCases() {
    for (const Case& scene : Cases())
        std::cout << scene.name << "\n";
    return 0;
}

int Run(CLI::App& app, const std::function<void()>& parse) {
    std::vector<std::string> names;
    bool list = false;
    bool json = false;
    bool verbose = false;
    ApplicationPrograms applications = ApplicationPrograms::FromEnvironment();

    app.add_option("--case", names, "play only this case; may be given several times");
    app.add_flag("--list", list, "list the cases");
    app.add_flag("--json", json, "print one line of JSON per case");
    app.add_flag("--verbose", verbose,
                 "print the processes as they start, and what they wrote to their standard errors");

    app.add_option("--windows-programs", applications.windowsFolder,
                   "the applications are the Windows programs of this folder, run by Wine");
    app.add_option("--wine", applications.wine, "what runs a Windows program")->capture_default_str();

    parse();

    if (list) return ListCases();
    const std::vector<Case> cases = SelectCases(names);
    const Interruption interruption;
    std::string errorOutput;
    std::vector<Outcome> outcomes;
    try {
        outcomes = PlayAll(cases, applications, verbose && !json, &errorOutput);
    } catch (const std::exception&) {
        if (ChildProcess::Interrupted()) return kInterruptedStatus;
        throw;
    }
    if (ChildProcess::Interrupted()) return kInterruptedStatus;
    (json ? PrintJson : PrintTable)(outcomes, &std::cout);
    const bool allPassed = std::all_of(outcomes.begin(), outcomes.end(),
                                       [](const Outcome& outcome) { return outcome.Passed(); });
    if (verbose || !allPassed) std::cerr << errorOutput;
    return allPassed ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    return RunMain("qxdemo", "Plays every case of the layer with real processes and shows what came of it.",
                   Run, argc, argv);
}
