// The life of a split connection that the analyzer inspects, once for every platform call in it, on whatever
// thread, with that call failing: connect, 64 KiB there and back, close. Whatever fails, the process neither
// crashes nor hangs nor keeps anything, no wrong byte arrives, and the application sees success, the end of
// its connection, or an error that Winsock documents.
#include <gtest/gtest.h>

#include <string>

#include "tests/faults/layer_sweep.h"

namespace {

constexpr std::size_t kBytes = 65536;

constexpr std::uint32_t kInspectAndReport = 0x06;

/// Has every stream inspected and its sends and receives reported, passes everything on, and an end as well.
void PassOn(const SeenRequest& request, AnalyzerConnection& connection) {
    ScriptedAnswer answer;
    switch (request.operation) {
        case 2:  // the application closes
            return;
        case 7:  // the client's side has ended
            answer.action = 6;
            break;
        case 8:  // the server's side has
            answer.action = 5;
            break;
        case 9:  // bytes from the client
            answer.action = 4;
            break;
        case 10:  // bytes from the server
            answer.action = 3;
            break;
        default:
            answer.flags = kInspectAndReport;
    }
    answer.data = request.data;
    connection.Answer(request, answer);
}

std::string MakeText() {
    std::string text(kBytes, '\0');
    for (std::size_t i = 0; i < kBytes; ++i)
        text[i] = static_cast<char>(i * 31 >> 8 ^ i);
    return text;
}

/// Sends the text and receives it.
std::string Exchange(SOCKET s) {
    static const std::string text = MakeText();
    const sockaddr_in destination = Ipv4("203.0.113.10", 80);
    if (connect(s, reinterpret_cast<const sockaddr*>(&destination), sizeof(destination)) != 0)
        return JudgeError("connect", WSAGetLastError());
    for (std::size_t sent = 0; sent < kBytes;) {
        const int result = send(s, text.data() + sent, static_cast<int>(kBytes - sent), 0);
        if (result < 0) return JudgeError("send", WSAGetLastError());
        sent += static_cast<std::size_t>(result);
    }
    std::string back(kBytes, '\0');
    for (std::size_t received = 0; received < kBytes;) {
        const int result = recv(s, &back[received], static_cast<int>(kBytes - received), 0);
        if (result < 0) return JudgeError("recv", WSAGetLastError());
        if (result == 0) return "";
        if (back.compare(received, result, text, received, result) != 0) return "wrong bytes arrive";
        received += static_cast<std::size_t>(result);
    }
    return "";
}

class SplitSweep : public LayerSweep {
  protected:
    SplitSweep() : LayerSweep(Exchange, 10, PassOn) {}
};

}  // namespace

TEST_F(SplitSweep, EveryCallFailsInTurn) {
    ExpectLeftovers();  // of the releases that failed; every other run is compared by itself
    const SweepResult result = SweepFaults(platform::FaultKind::kError, 0, Scenario());
    Report(result, "errors");
    EXPECT_GT(result.runs, 300);
}

TEST_F(SplitSweep, EveryCallTransfersOneByteInTurn) {
    const SweepResult result = SweepFaults(platform::FaultKind::kShortCount, 1, Scenario());
    Report(result, "short counts");
    EXPECT_GT(result.runs, 300);
}

TEST_F(SplitSweep, EveryGuardedCallRaisesInTurn) {
    // Winsock starts the base provider for itself to read an accepted connection's name.
    const SweepResult result =
        SweepExceptions({"AcceptEx", "GetAcceptExSockaddrs", "WSASend", "WSARecv", "WSAGetOverlappedResult",
                         "ioctlsocket", "setsockopt", "getsockname", "bind", "listen", "shutdown", "select"},
                        {"lower WSPStartup", "lower WSPCleanup"});
    Report(result, "exceptions");
    EXPECT_GT(result.runs, 100);
}
