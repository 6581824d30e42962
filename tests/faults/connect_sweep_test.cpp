// The whole life of an inspected connection, once for every platform call in it, with that call failing:
// whatever fails, the process neither crashes nor hangs nor keeps anything, and the application sees success
// or an error that Winsock documents.
#include <gtest/gtest.h>

#include <string>

#include "tests/faults/layer_sweep.h"

namespace {

/// Connects with a verdict, sends and receives.
std::string Exchange(SOCKET s) {
    const sockaddr_in destination = Ipv4("203.0.113.10", 80);
    if (connect(s, reinterpret_cast<const sockaddr*>(&destination), sizeof(destination)) != 0)
        return JudgeError("connect", WSAGetLastError());
    if (send(s, "ping", 4, 0) < 0) return JudgeError("send", WSAGetLastError());
    char bytes[16];
    if (recv(s, bytes, sizeof(bytes), 0) < 0) return JudgeError("recv", WSAGetLastError());
    return "";
}

class ConnectSweep : public LayerSweep {
  protected:
    ConnectSweep() : LayerSweep(Exchange, 10) {}
};

}  // namespace

TEST_F(ConnectSweep, EveryCallFailsInTurn) {
    ExpectLeftovers();  // of the releases that failed; every other run is compared by itself
    const SweepResult result = SweepFaults(platform::FaultKind::kError, 0, Scenario());
    Report(result, "errors");
    EXPECT_GT(result.runs, 100);
}

TEST_F(ConnectSweep, EveryCallTransfersOneByteInTurn) {
    const SweepResult result = SweepFaults(platform::FaultKind::kShortCount, 1, Scenario());
    Report(result, "short counts");
    EXPECT_GT(result.runs, 100);
}

TEST_F(ConnectSweep, EveryGuardedCallRaisesInTurn) {
    // Beside the lower provider the socket calls that the layer alone makes here: an exception in a call that
    // the application makes itself would be the application's.
    const SweepResult result = SweepExceptions({"WSASend", "WSARecv", "ioctlsocket", "setsockopt", "select"});
    Report(result, "exceptions");
    EXPECT_GT(result.runs, 20);
}
