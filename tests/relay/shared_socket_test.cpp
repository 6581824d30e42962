// Several threads of the application on one socket: whose answer is whose, and what a close does to a connect
// that waits for the analyzer.
#include <winsock2.h>

#include <gtest/gtest.h>

#include <future>
#include <string>

#include "platform/kernel/fault_points.h"
#include "platform/testing/clock.h"
#include "tests/support/connect_fixture.h"

namespace {

// The flag of a verdict that asks for a split.
constexpr std::uint32_t kRelayWanted = 0x08;
constexpr std::uint32_t kCloseSocket = 2;

class SharedSocket : public ConnectFixture {};

TEST_F(SharedSocket, TwoConnectsTakeTurnsAndTheirOwnAnswers) {
    analyzer_.SetScript([](const SeenRequest& request, AnalyzerConnection& connection) {
        // Not before the other thread waits as well.
        if (request.connection == 1) platform::WaitForTimedWaits(2);
        ScriptedAnswer answer;
        answer.action = request.Destination() == "203.0.113.10:80" ? 1 : 0;
        connection.Answer(request, answer);
    });
    StartWinsock();
    const platform::ScopedClockRate stopped(0);
    const SOCKET s = StreamSocket();
    auto blocked = std::async(std::launch::async, [&] { return Connect(s, Ipv4(kPublic, kPort)); });
    auto allowed = std::async(std::launch::async, [&] { return Connect(s, Ipv4(kOther, kPort)); });
    EXPECT_NE(blocked.get(), 0);
    EXPECT_EQ(allowed.get(), 0);
    EXPECT_TRUE(otherOrigin_.HasConnection());
    EXPECT_FALSE(origin_.HasConnection());
    EXPECT_EQ(closesocket(s), 0);
    EXPECT_EQ(ConnectRequests().size(), 2u);
    EXPECT_EQ(CountDebugLines("Skipped an answer"), 0u);
}

TEST_F(SharedSocket, ASplitThatFailsLeavesTheOtherConnectItsAnswer) {
    SetRegistryValue("StopActivityOnFailConnect", 1);
    analyzer_.SetScript([](const SeenRequest& request, AnalyzerConnection& connection) {
        // The first answer comes when the other connect waits for its turn, which lasts until the split.
        if (request.connection == 1) {
            EXPECT_TRUE(platform::WaitForTimedWaits(2));
        }
        ScriptedAnswer answer;
        answer.flags = request.Destination() == "203.0.113.10:80" ? kRelayWanted : 0;
        connection.Answer(request, answer);
    });
    StartWinsock();
    platform::Fault noListener{"listen"};
    noListener.repeat = true;
    const platform::ScopedFault fault(noListener);
    const platform::ScopedClockRate stopped(0);
    const SOCKET s = StreamSocket();
    auto split = std::async(std::launch::async, [&] { return ConnectToPublic(s); });
    ASSERT_TRUE(analyzer_.WaitForRequests(1));
    auto allowed = std::async(std::launch::async, [&] { return Connect(s, Ipv4(kOther, kPort)); });
    EXPECT_NE(split.get(), 0);
    EXPECT_EQ(allowed.get(), 0);
    EXPECT_TRUE(otherOrigin_.HasConnection());
    EXPECT_EQ(closesocket(s), 0);
}

TEST_F(SharedSocket, ClosingFreesTheThreadThatWaitsForAVerdict) {
    analyzer_.SetScript([](const SeenRequest&, AnalyzerConnection&) {});
    StartWinsock();
    const platform::ScopedClockRate stopped(0);
    const SOCKET s = StreamSocket();
    auto connecting = std::async(std::launch::async, [&] { return ConnectToPublic(s); });
    ASSERT_TRUE(analyzer_.WaitForRequests(1));
    ASSERT_TRUE(platform::WaitForTimedWaits(1));
    EXPECT_EQ(closesocket(s), 0) << "the close doesn't wait for the analyzer";
    EXPECT_EQ(connecting.get(), WSAENOTSOCK) << "nobody was asked, whatever the policy says";
    EXPECT_FALSE(origin_.HasConnection());
    EXPECT_TRUE(analyzer_.WaitForEnded(1));
    ASSERT_EQ(analyzer_.Requests().size(), 2u);
    EXPECT_EQ(analyzer_.Requests()[1].operation, kCloseSocket) << "behind the exchange that it has ended";
}

}  // namespace
