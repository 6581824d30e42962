// The life of one inspected connection as a scenario for sweeps: start up, create a socket, use it, close,
// clean up, as a careful application does it.
#pragma once

#include <set>
#include <string>
#include <utility>

#include "tests/faults/origin.h"
#include "tests/faults/sweep.h"
#include "tests/support/layer_fixture.h"
#include "tests/support/scripted_analyzer.h"

/// A call that failed with an error: empty when Winsock documents that, otherwise what is wrong with it.
std::string JudgeError(const char* call, int error);

class LayerSweep : public LayerFixture {
  protected:
    /// Uses the socket until a call fails. What was wrong, empty when every failure was a documented one.
    using SocketUse = std::string (*)(SOCKET);

    /// The clock runs `clockRate` times as fast as real time, for what waits after a failure. Without another
    /// script the analyzer allows everything and wants every send and receive reported.
    LayerSweep(SocketUse use, double clockRate, ScriptedAnalyzer::Script script = AllowAndReport)
        : use_(use), clockRate_(clockRate), analyzer_(std::move(script)) {}

    static void AllowAndReport(const SeenRequest& request, AnalyzerConnection& connection);

    /// Goes through the scenario once, so that what is made once is there.
    void SetUp() override;
    void TearDown() override;

    SweepScenario Scenario() const;

    /// Has every call of the lower provider, and of the functions in `own`, raise an exception in turn. Not
    /// of those in `others`, which somebody else calls as well.
    SweepResult SweepExceptions(const std::set<std::string>& own,
                                const std::set<std::string>& others = {}) const;

    static void Report(const SweepResult& result, const char* what);

  private:
    const SocketUse use_;
    const double clockRate_;
    Origin origin_;
    ScriptedAnalyzer analyzer_;
};
