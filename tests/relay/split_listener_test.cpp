// The relay's listener: where it listens, and what it does about a start or an accept that failed.
#include "platform/kernel/fault_points.h"
#include "platform/testing/clock.h"
#include "tests/relay/split_fixture.h"
#include "tests/support/loopback_socket.h"

namespace {

constexpr std::uint16_t kFirstPort = 48300;
constexpr std::uint16_t kPortLimit = 51300;

using platform::FaultKind;

class SplitListener : public SplitFixture {
  protected:
    static std::uint16_t ListenerPort() { return loopback_socket::FindOwnListener(kFirstPort, kPortLimit); }

    void ExpectSplitWorks() {
        LoopbackStream server;
        const SOCKET s = ConnectSplit(server);
        EXPECT_TRUE(SendAll(s, "ping"));
        EXPECT_EQ(ReadText(server, 4), "ping");
        EXPECT_EQ(closesocket(s), 0);
        EXPECT_EQ(ReadText(server, 1), "");
    }
};

TEST_F(SplitListener, TakesTheNextPortWhenOneIsTaken) {
    StartWinsock();
    for (const DWORD error : {WSAEADDRINUSE, WSAEACCES}) {
        {
            const platform::ScopedFault fault({"lower WSPBind", 1, FaultKind::kError, error});
            ExpectSplitWorks();
        }
        EXPECT_GT(ListenerPort(), kFirstPort);
        StopWinsock();
        EXPECT_EQ(ListenerPort(), 0);
        StartWinsock();
    }
}

TEST_F(SplitListener, AStartThatFailsFailsItsSplitAndTheNextOneTriesAgain) {
    const struct {
        const char* function;
        DWORD error;
        bool forEver;
        const char* line;
    } rows[] = {
        {"lower WSPBind", WSAEADDRINUSE, true,
         "Failed to bind to port 51299 for lsp relay socket, error = 10048"},
        {"lower WSPBind", WSAENETDOWN, false,
         "Failed to bind to port 48300 for lsp relay socket, error = 10050"},
        {"lower WSPListen", WSAENOBUFS, false, "Failed to listen to relay connections, error = 10055"},
        {"CreateIoCompletionPort", 0, false, "Failed to create the completion port"},
        {"lower AcceptEx", WSAENOBUFS, false, "Failed to accept the relay socket:10055"},
    };
    StartWinsock();
    closesocket(StreamSocket());  // loads the layer
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        {
            const platform::ScopedFault fault({row.function, 1, FaultKind::kError, row.error, row.forEver});
            EXPECT_EQ(ConnectOnce(), WSAEFAULT);
        }
        EXPECT_EQ(CountDebugLines(row.line), 1u);
        ExpectSplitWorks();
        StopWinsock();
        StartWinsock();
        closesocket(StreamSocket());
    }
}

/// A connection that nobody has accepted waits for that.
TEST_F(SplitListener, AcceptsThatFailedAreTriedAgainWithinASecond) {
    StartWinsock();
    LoopbackStream server;
    SOCKET s = INVALID_SOCKET;
    {
        const platform::ScopedClockRate stopped(0);
        {
            // Only the one accept that the first connection needs is under way.
            const platform::ScopedFault fault({"lower AcceptEx", 2, FaultKind::kError, WSAENOBUFS, true});
            s = ConnectSplit(server);
            ASSERT_TRUE(SendAll(s, "ping"));
            ASSERT_EQ(ReadText(server, 4), "ping");
        }
        LoopbackStream stranger(loopback_socket::Connect(ListenerPort()));
        ASSERT_TRUE(platform::WaitForTimedWaits(1));
        platform::AdvanceClock(1000);
        char byte = 0;
        EXPECT_EQ(stranger.ReadSome(&byte, 1), 0u) << "it is turned away";
    }
    ExpectSplitWorks();
    EXPECT_EQ(closesocket(s), 0);
}

}  // namespace
