// What a connect asks the analyzer, and what becomes of the connect by each answer.
#include <winsock2.h>

#include <ws2tcpip.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "platform/kernel/fault_points.h"
#include "tests/support/connect_fixture.h"

namespace {

constexpr std::uint32_t kOpConnect = 12;
constexpr std::uint32_t kAllow = 0;
constexpr std::uint32_t kBlock = 1;
constexpr std::uint32_t kRedirect = 2;

ScriptedAnswer Verdict(std::uint32_t action, std::uint32_t flags = 0) {
    ScriptedAnswer answer;
    answer.action = action;
    answer.flags = flags;
    return answer;
}

class ConnectVerdict : public ConnectFixture {
  protected:
    ScriptedAnswer RedirectToOther() const {
        ScriptedAnswer answer = Verdict(kRedirect);
        answer.redirectTo = std::string(kOther) + ":80";
        return answer;
    }
};

TEST_F(ConnectVerdict, TheRequestTellsWhoConnectsWhere) {
    Settings().certificateSubject = "Demo Signer";
    Settings().windows.push_back({"Main window"});
    StartWinsock();
    // The collection of title and signer runs beside; a request says <Unknown> until it is through.
    std::string title;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (title != "Main window" && std::chrono::steady_clock::now() < deadline) {
        ASSERT_EQ(ConnectOnce(), 0);
        title = ConnectRequests().back().windowTitle;
    }
    const SeenRequest request = ConnectRequests().back();
    EXPECT_EQ(request.operation, kOpConnect);
    EXPECT_EQ(request.Destination(), "203.0.113.10:80");
    EXPECT_EQ(request.processId, GetCurrentProcessId());
    EXPECT_EQ(request.messageId >> 16, GetCurrentProcessId() & 0xFFFF);
    EXPECT_EQ(request.userName, "TESTDOMAIN\\tester");
    EXPECT_EQ(request.windowTitle, "Main window");
    EXPECT_EQ(request.imageSigner, "Demo Signer");
    EXPECT_EQ(request.socketType, static_cast<std::uint32_t>(SOCK_STREAM));
    EXPECT_EQ(request.protocol, 0u);
    EXPECT_EQ(request.flags, 0u);
    EXPECT_EQ(request.bytesSent + request.bytesReceived, 0u);
    EXPECT_EQ(request.messageType, 1u);
    EXPECT_TRUE(request.data.empty());
}

TEST_F(ConnectVerdict, AllowedConnectsGoThroughAndTheChannelEndsWithTheSocket) {
    analyzer_.SetScript(AnswerInOrder({Verdict(kAllow), Verdict(7), Verdict(5)}));
    StartWinsock();
    for (std::size_t round = 1; round <= 3; ++round) {
        const SOCKET s = StreamSocket();
        EXPECT_EQ(ConnectToPublic(s), 0);
        EXPECT_EQ(PeerName(s), "203.0.113.10:80");
        LoopbackStream accepted;
        ASSERT_TRUE(origin_.Accept(accepted));
        EXPECT_EQ(send(s, "ping", 4, 0), 4);
        char received[4];
        EXPECT_TRUE(accepted.ReadExactly(received, sizeof(received)));
        EXPECT_EQ(closesocket(s), 0);
        EXPECT_TRUE(analyzer_.WaitForEnded(round));
    }
    EXPECT_EQ(ConnectRequests().size(), 3u);
}

TEST_F(ConnectVerdict, BlockedConnectsAreRefusedAndANewAttemptIsAskedAnew) {
    analyzer_.SetScript(AnswerInOrder({Verdict(kBlock), Verdict(kAllow)}));
    StartWinsock();
    const SOCKET s = StreamSocket();
    EXPECT_EQ(ConnectToPublic(s), WSAECONNREFUSED);
    EXPECT_EQ(PeerName(s), "none");
    EXPECT_EQ(send(s, "x", 1, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAECONNABORTED);
    EXPECT_FALSE(origin_.HasConnection());
    const sockaddr_in any = Ipv4("0.0.0.0", 0);
    EXPECT_EQ(bind(s, reinterpret_cast<const sockaddr*>(&any), sizeof(any)), 0) << "no bind was refused";

    EXPECT_EQ(ConnectToPublic(s), 0);
    EXPECT_TRUE(origin_.HasConnection());
    EXPECT_TRUE(analyzer_.WaitForEnded(1))
        << "the first attempt's channel is closed when the second makes its own";
    EXPECT_EQ(closesocket(s), 0);
    EXPECT_TRUE(analyzer_.WaitForEnded(2));
}

TEST_F(ConnectVerdict, RedirectedConnectsGoElsewhereUnderTheAskedName) {
    analyzer_.SetScript(AnswerInOrder({RedirectToOther()}));
    StartWinsock();
    const SOCKET s = StreamSocket();
    EXPECT_EQ(ConnectToPublic(s), 0);
    EXPECT_TRUE(otherOrigin_.HasConnection());
    EXPECT_FALSE(origin_.HasConnection());
    EXPECT_EQ(PeerName(s), "203.0.113.10:80");
    EXPECT_EQ(closesocket(s), 0);
}

/// The relay can't be started.
platform::Fault NoListener() {
    platform::Fault fault{"listen"};
    fault.repeat = true;
    return fault;
}

TEST_F(ConnectVerdict, ASplitThatFailsFailsTheConnectAndReleasesTheChannel) {
    StartWinsock();
    const platform::ScopedFault fault(NoListener());
    std::size_t ended = 0;
    for (const std::uint32_t flags : {0x04u, 0x08u, 0x20u, 0x2fu}) {
        analyzer_.SetScript(AnswerInOrder({Verdict(kAllow, flags)}));
        const SOCKET s = StreamSocket();
        EXPECT_EQ(ConnectToPublic(s), WSAEFAULT) << flags;
        EXPECT_TRUE(analyzer_.WaitForEnded(++ended)) << flags;
        EXPECT_EQ(closesocket(s), 0);
    }
    EXPECT_FALSE(origin_.HasConnection());
}

// One socket, attempt after attempt; each request reports the flags that the attempts before left.
TEST_F(ConnectVerdict, FlagsFollowTheVerdicts) {
    const struct {
        ScriptedAnswer answer;
        int error;
        std::uint32_t flagsAfter;
    } attempts[] = {
        {Verdict(kBlock, 0x03), WSAECONNREFUSED, 0x03},
        {Verdict(kBlock, 0x10), WSAECONNREFUSED, 0x03},
        {Verdict(kAllow, 0x24 | 0x02), WSAEFAULT, 0x2e},
        {Verdict(kAllow, 0x10), WSAEFAULT, 0x2e},        // keeps the wish to split as well
        {Verdict(4, 0x10), WSAEFAULT, 0x2e},             // an action that is no verdict changes nothing
        {Verdict(kBlock, 0x10), WSAECONNREFUSED, 0x26},  // a refusal ends the wish to split
        {Verdict(kBlock, 0x00), WSAECONNREFUSED, 0x24},  // a socket that isn't to be split keeps the others
    };
    std::vector<ScriptedAnswer> answers;
    for (const auto& attempt : attempts)
        answers.push_back(attempt.answer);
    answers.push_back(RedirectToOther());
    analyzer_.SetScript(AnswerInOrder(answers));
    StartWinsock();
    const platform::ScopedFault fault(NoListener());
    const SOCKET s = StreamSocket();
    for (const auto& attempt : attempts)
        EXPECT_EQ(ConnectToPublic(s), attempt.error);
    EXPECT_EQ(ConnectToPublic(s), 0);
    EXPECT_EQ(closesocket(s), 0);

    const std::vector<SeenRequest> requests = ConnectRequests();
    ASSERT_EQ(requests.size(), std::size(attempts) + 1);
    for (std::size_t i = 0; i < std::size(attempts); ++i) {
        EXPECT_EQ(requests[i + 1].flags, attempts[i].flagsAfter) << "after attempt " << i;
    }
}

TEST_F(ConnectVerdict, AnEarlierWishToSplitDoesNotSteerALocalConnect) {
    analyzer_.SetScript(AnswerInOrder({Verdict(kAllow, 0x08)}));
    StartWinsock();
    const platform::ScopedFault fault(NoListener());
    const SOCKET s = StreamSocket();
    EXPECT_EQ(ConnectToPublic(s), WSAEFAULT);
    EXPECT_EQ(Connect(s, Ipv4("127.0.0.1", origin_.Port())), 0);
    EXPECT_EQ(closesocket(s), 0);
}

TEST_F(ConnectVerdict, LocalDestinationsAndDatagramsAreNeverAsked) {
    RouteTo("192.168.1.5:80", origin_.Port());
    RouteTo("8.8.8.255:80", origin_.Port());
    StartWinsock();
    for (const char* address : {"192.168.1.5", "8.8.8.255", "127.0.0.1"}) {
        const SOCKET s = StreamSocket();
        EXPECT_EQ(Connect(s, Ipv4(address, std::string(address) == "127.0.0.1" ? origin_.Port() : kPort)), 0)
            << address;
        EXPECT_EQ(closesocket(s), 0);
    }
    const SOCKET datagram = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    EXPECT_EQ(Connect(datagram, Ipv4(kPublic, kPort)), 0);
    EXPECT_EQ(closesocket(datagram), 0);
    EXPECT_EQ(analyzer_.Accepted(), 0u);
}

TEST_F(ConnectVerdict, ALocalConnectThatFailsOpensNoWayPastARefusal) {
    analyzer_.SetScript(AnswerInOrder({Verdict(kBlock)}));
    StartWinsock();
    const ClosedPort nobody;
    const SOCKET s = StreamSocket();
    EXPECT_EQ(Connect(s, Ipv4("127.0.0.1", nobody.Port())), WSAECONNREFUSED);
    EXPECT_EQ(ConnectToPublic(s), WSAECONNREFUSED);
    EXPECT_FALSE(origin_.HasConnection());
    EXPECT_EQ(ConnectRequests().size(), 1u);
    EXPECT_EQ(closesocket(s), 0);
}

TEST_F(ConnectVerdict, AnExemptedProcessIsLeftAlone) {
    ScriptedAnswer someoneElse = Verdict(kAllow);
    someoneElse.exemptProcessId = GetCurrentProcessId() + 1;
    ScriptedAnswer us = Verdict(kBlock, 0x01);
    us.exemptProcessId = GetCurrentProcessId();
    analyzer_.SetScript(AnswerInOrder({someoneElse, us, Verdict(kBlock)}));
    StartWinsock();
    EXPECT_EQ(ConnectOnce(), 0);
    EXPECT_EQ(ConnectOnce(), WSAECONNREFUSED) << "this connect's own verdict still holds";
    EXPECT_EQ(ConnectOnce(), 0);
    EXPECT_EQ(ConnectRequests().size(), 2u);
}

}  // namespace
