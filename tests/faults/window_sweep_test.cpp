// The start and the end of the hidden window, once for every platform call in it, on whatever thread, with
// that call failing. Whatever fails, the application is told or gets its events, and nothing stays behind.
#include <winsock2.h>

#include <optional>
#include <string>

#include "tests/faults/layer_sweep.h"
#include "tests/support/message_window.h"

namespace {

std::optional<MessageWindow> TheWindow;

/// Asks for events, takes what is there, and cancels.
std::string AskForEvents(SOCKET s) {
    for (const LONG events : {FD_CONNECT | FD_CLOSE, FD_ALL_EVENTS, 0}) {
        if (WSAAsyncSelect(s, TheWindow->handle(), MessageWindow::kMessage, events) != 0)
            return JudgeError("WSAAsyncSelect", WSAGetLastError());
    }
    return "";
}

class WindowSweep : public LayerSweep {
  protected:
    WindowSweep() : LayerSweep(AskForEvents, 50) {}
    void SetUp() override {
        TheWindow.emplace();
        LayerSweep::SetUp();
    }
    void TearDown() override {
        LayerSweep::TearDown();
        TheWindow.reset();
    }
};

}  // namespace

TEST_F(WindowSweep, EveryCallFailsInTurn) {
    ExpectLeftovers();  // of the releases that failed; every other run is compared by itself
    const SweepResult result = SweepFaults(platform::FaultKind::kError, 0, Scenario());
    Report(result, "errors");
    EXPECT_GT(result.runs, 50);
}

TEST_F(WindowSweep, TheLowerCallRaises) {
    const SweepResult result = SweepExceptions({});
    Report(result, "exceptions");
    EXPECT_GT(result.runs, 4);
}
