// qxdemo: the main job, visible. It starts the origin servers, the analyzer and one application per case, all
// real processes on real sockets, and prints what each of them was told and saw. Exit status 0 only if every
// case came out as promised; 1 if one did not, 2 for wrong usage, a stage that could not be set up or an
// output that could not be written, 130 when interrupted.
#include "apps/demo/interruption.h"
#include "apps/demo/outcome.h"
#include "apps/demo/report.h"
#include "apps/shared/run_main.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <future>
#include <iostream>
#include <mutex>
#include <stdexcept>

namespace {

constexpr int kTroubleStatus = 2;
constexpr int kInterruptedStatus = 130;

struct Wishes {
    ApplicationPrograms applications = ApplicationPrograms::FromEnvironment();
    bool ownProgramsOnly = false;
    bool json = false;
    bool verbose = false;
};

std::vector<Case> AllCases(const Wishes& wishes) {
    std::vector<Case> all = Cases();
    if (wishes.applications.AreNative() && !wishes.ownProgramsOnly)
        all.insert(all.end(), ProgramCases().begin(), ProgramCases().end());
    return all;
}

std::vector<Case> SelectCases(const std::vector<std::string>& names, const Wishes& wishes) {
    const std::vector<Case> all = AllCases(wishes);
    if (names.empty()) return all;
    std::vector<Case> selected;
    for (const std::string& name : names) {
        const auto found = std::find_if(all.begin(), all.end(),
                                        [&](const Case& candidate) { return candidate.name == name; });
        if (found == all.end()) throw std::runtime_error("there is no case \"" + name + "\"; see --list");
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
std::vector<Outcome> PlayAll(const std::vector<Case>& cases, const Wishes& wishes, std::string* errorOutput) {
    Stage stage(cases, wishes.applications);
    if (!wishes.json) PrintIntroduction(stage.ServerAddresses(), &std::cout);
    const bool announce = wishes.verbose && !wishes.json;
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
    const std::vector<Visit>& visits = stage.AllVisits();
    for (std::size_t i = 0; i < cases.size(); ++i)
        outcomes.push_back(Judge(cases[i], finished[i], questions, visits));
    *errorOutput = stage.ErrorOutput();
    return outcomes;
}

int ListCases(const Wishes& wishes) {
    for (const Case& scene : AllCases(wishes))
        std::cout << scene.name << "\n";
    return 0;
}

int Run(CLI::App& app, const std::function<void()>& parse) {
    std::vector<std::string> names;
    bool list = false;
    Wishes wishes;

    app.add_option("--case", names, "play only this case; may be given several times");
    app.add_flag("--list", list, "list the cases");
    app.add_flag("--json", wishes.json, "print one line of JSON per case");
    app.add_flag("--verbose", wishes.verbose,
                 "print the processes as they start, and what they wrote to their standard errors");

    app.add_flag("--own-programs-only", wishes.ownProgramsOnly,
                 "leave out the cases with programs that know nothing of the layer");

    app.add_option("--windows-programs", wishes.applications.windowsFolder,
                   "the applications are the Windows programs of this folder, run by Wine");
    app.add_option("--wine", wishes.applications.wine, "what runs a Windows program")->capture_default_str();

    parse();

    if (list) return ListCases(wishes);
    const std::vector<Case> cases = SelectCases(names, wishes);
    const Interruption interruption;
    std::string errorOutput;
    std::vector<Outcome> outcomes;
    try {
        outcomes = PlayAll(cases, wishes, &errorOutput);
    } catch (const std::exception&) {
        if (ChildProcess::Interrupted()) return kInterruptedStatus;
        throw;
    }
    if (ChildProcess::Interrupted()) return kInterruptedStatus;
    (wishes.json ? PrintJson : PrintTable)(outcomes, &std::cout);
    const bool allPassed = std::all_of(outcomes.begin(), outcomes.end(),
                                       [](const Outcome& outcome) { return outcome.Passed(); });
    if (wishes.verbose || !allPassed) std::cerr << errorOutput;
    return allPassed ? 0 : 1;
}

/// Puts something unwritable in place of standard streams that are closed. The first pipe to a child would
/// get such a stream's number otherwise, and be written to by mistake.
void HoldStandardStreams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(stream, F_GETFD) < 0) open("/dev/null", O_RDONLY);
    }
}

int ReportUnwritable() {
    std::fprintf(stderr, "qxdemo: cannot write to the standard output\n");
    return kTroubleStatus;
}

}  // namespace

int main(int argc, char** argv) {
    // A reader that went away shows when the output is written; the stage must come down first.
    std::signal(SIGPIPE, SIG_IGN);
    HoldStandardStreams();
    const int status =
        RunMain("qxdemo", "Plays every case of the layer with real processes and shows what came of it.", Run,
                argc, argv);
    return std::cout.flush() ? status : ReportUnwritable();
}
