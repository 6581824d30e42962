// The stage on which cases are played: a temporary directory, the origin servers, the analyzer with the rules
// of the cases, and one application process per case on a machine of its own. The demo plays all cases on one
// stage at the same time; a test makes its own.
//
// StartApplication, StartClient and Play may be called from several threads at once; everything else belongs
// to the thread that made the stage, which must outlive it (the servers die with that thread).
#pragma once

#include "apps/demo/analyzer_log.h"
#include "apps/demo/application_programs.h"
#include "apps/demo/cases.h"
#include "apps/demo/child_process.h"
#include "apps/demo/closed_port.h"
#include "apps/demo/origin_log.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

/// How one request of an application went, as it reports it itself.
struct ClientLine {
    std::string failedStep;
    int error = 0;
    std::string peer;
    int status = 0;
    std::string body;
    std::string checksum;
    int elapsedMilliseconds = 0;
    int processId = 0;
    std::uint64_t bytes = 0;  ///< received
};

/// What an application saw.
struct ClientRun {
    /// The application's own number for itself. Under Wine only the application knows it; there it is 0 when
    /// the application told nothing.
    int processId = 0;
    int exitStatus = 0;
    std::string destination;
    std::vector<ClientLine> lines;
    std::chrono::milliseconds realTime{0};
};

class Stage {
  public:
    /// Starts the servers and an analyzer that knows the rules of `cases`. Throws std::runtime_error.
    explicit Stage(const std::vector<Case>& cases,
                   ApplicationPrograms applications = ApplicationPrograms::FromEnvironment());

    /// Ends all processes and removes the directory.
    ~Stage();

    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    /// Runs the application of a case to its end; `started` is called with this machine's id of the process.
    /// Throws std::runtime_error.
    ClientRun Play(const Case& scene, const std::function<void(pid_t processId)>& started = {});

    /// Starts a program as the application of a case, on the case's machine.
    std::unique_ptr<ChildProcess> StartApplication(const Case& scene, const std::string& program,
                                                   const std::vector<std::string>& arguments);

    /// Starts the client of a case with further arguments and leaves the rest to the caller, who collects the
    /// outcome with Finish from the same thread.
    std::unique_ptr<ChildProcess> StartClient(const Case& scene, const std::vector<std::string>& arguments);
    ClientRun Finish(const Case& scene, ChildProcess* client);

    /// Ends the analyzer; what it was told is kept.
    void StopAnalyzer();

    /// Starts the analyzer again, at the same port.
    void StartAnalyzer();

    /// Ends the analyzer and returns everything that it was ever told.
    const std::vector<Question>& AllQuestions();

    /// Ends the servers and returns everything that was asked of them.
    const std::vector<Visit>& AllVisits();

    /// The address at which the case's application asks: its own, or the server's real one.
    std::string DestinationOf(const Case& scene) const;

    /// Where the origin servers really listen, "127.0.0.1:PORT", by their names.
    const std::map<std::string, std::string>& ServerAddresses() const { return serverAddresses_; }

    /// What the processes wrote to their standard errors.
    std::string ErrorOutput() const;

  private:
    void StartServers();
    void WriteRules(const std::vector<Case>& cases) const;
    std::unique_ptr<ChildProcess> StartProgram(std::vector<std::string> command,
                                               const std::vector<std::string>& arguments,
                                               const std::map<std::string, std::string>& environment,
                                               const std::string& name) const;

    const ApplicationPrograms applications_;
    std::filesystem::path directory_;
    ClosedPort closedPort_;
    std::map<std::string, std::string> serverAddresses_;
    std::vector<std::unique_ptr<ChildProcess>> servers_;
    std::unique_ptr<ChildProcess> analyzer_;
    unsigned short analyzerPort_ = 0;
    std::vector<Question> questions_;
    std::vector<Visit> visits_;
    std::atomic<int> machines_{0};
};
