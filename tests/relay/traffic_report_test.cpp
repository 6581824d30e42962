// What the analyzer is told of a stream's sends, receives and close, and what its answers do to them.
#include <gtest/gtest.h>

#include "platform/testing/clock.h"
#include "tests/relay/traffic_fixture.h"

namespace {

class StreamReports : public TrafficFixture {};

// Each row with the application's own connection and with a split one, whose bytes the relay forwards unseen.
TEST_F(StreamReports, SayWhatWasFoundOutAndWhatTheVerdictAsksFor) {
    const std::string get = "GET / HTTP/1.1\r\nHost: a\r\n\r\n";  // 27 bytes
    const std::string ssh = "SSH-2.0-OpenSSH_9.2\r\n";            // 21 bytes
    const struct {
        const char* name;
        std::uint32_t flags;
        std::vector<std::string> steps;
        std::vector<std::string> told;
    } rows[] = {
        {"recognised from the first send; HTTP is looked at again",
         0,
         {"s:" + get, "r:answer", "s:more", "s:" + get},
         {"4 p1 s0 r0 [" + get + "]", "4 p1 s31 r6 [" + get + "]", "2 p1 s58 r6"}},
        {"recognised from the first receive, and then never again",
         0,
         {"r:" + ssh, "s:" + ssh, "r:" + ssh},
         {"6 p800 s0 r21 [" + ssh + "]", "2 p800 s21 r42"}},
        {"given up with the first receive",
         0,
         {"s:zz", "s:zz", "r:zzz", "s:z"},
         {"6 p80000000 s4 r3", "2 p80000000 s5 r3"}},
        {"given up with the first send", 0, {"r:zzz", "s:zz"}, {"4 p80000000 s0 r3", "2 p80000000 s2 r3"}},
        {"undecided", 0, {"s:zz", "s:zz"}, {"2 p0 s4 r0"}},
        {"reported",
         kReport,
         {"s:zz", "r:zzz", "s:zz", "r:z"},
         {"3 p0 s0 r0", "6 p80000000 s2 r3", "3 p80000000 s2 r3", "5 p80000000 s4 r4", "2 p80000000 s4 r4"}},
        {"counted: an answer ends the count",
         kCount,
         {"s:zz", "r:zzz", "s:z", "s:" + get},
         {"3 p0 s0 r0", "6 p80000000 s2 r3", "3 p80000000 s0 r0", "3 p80000000 s1 r0", "2 p80000000 s27 r0"}},
    };
    StartWinsock();
    std::size_t closes = 0;
    for (const auto& row : rows) {
        for (const std::uint32_t way : {0u, kForward}) {
            SCOPED_TRACE(std::string(row.name) + (way != 0 ? ", split" : ""));
            Answer({row.flags | way});
            const std::size_t before = analyzer_.Requests().size();
            LoopbackStream server;
            const SOCKET s = ConnectSplit(server);
            Play(s, server, row.steps);
            EXPECT_EQ(closesocket(s), 0);
            EXPECT_TRUE(WaitForCloses(++closes));
            EXPECT_EQ(Told(before), row.told);
        }
    }
}

// The relay counts what passes the analyzer.
TEST_F(StreamReports, InspectedBytesAreCountedByTheRelayUnderTheProtocol) {
    StartWinsock();
    Answer({kInspect | kCount});
    LoopbackStream server;
    const SOCKET s = ConnectSplit(server);
    Play(s, server, {"r:SSH-2.0-x\r\n", "s:zz", "r:zz"});
    EXPECT_EQ(closesocket(s), 0);
    EXPECT_TRUE(WaitForCloses(1));
    EXPECT_EQ(Told().size(), 2u) << "the protocol and the close";
    std::vector<std::uint32_t> protocols;
    for (const SeenRequest& request : analyzer_.Requests()) {
        if (request.operation == 9) protocols.push_back(request.protocol);
    }
    EXPECT_EQ(protocols, std::vector<std::uint32_t>{0x800});
}

TEST_F(StreamReports, RefusedTrafficGoesNowhere) {
    StartWinsock();
    for (const std::uint32_t way : {0u, kForward}) {
        SCOPED_TRACE(way);
        Answer({kReport | way, {3}});
        LoopbackStream server;
        const SOCKET s = ConnectSplit(server);
        EXPECT_EQ(send(s, "zz", 2, 0), SOCKET_ERROR);
        EXPECT_EQ(WSAGetLastError(), WSAECONNABORTED);
        Answer({kReport | way, {5, 6}});
        EXPECT_EQ(send(s, "abc", 3, 0), 3) << "asked anew";
        EXPECT_EQ(ReadText(server, 3), "abc") << "the refused bytes are not before them";
        EXPECT_TRUE(server.WriteAll("zz", 2));
        EXPECT_EQ(ReceiveText(s, 2), "[10053]");
        if (way != 0) {
            EXPECT_TRUE(server.WriteAll("zz", 2));
            EXPECT_EQ(ReadText(server, 1), "") << "with nobody left to read, the relay ends the connection";
        }
        EXPECT_EQ(closesocket(s), 0);
    }
}

TEST_F(StreamReports, ReceivesWithoutBytesShowNothing) {
    StartWinsock();
    Answer({kReport});
    LoopbackStream server;
    const SOCKET s = ConnectSplit(server);
    u_long nonBlocking = 1;
    EXPECT_EQ(ioctlsocket(s, static_cast<LONG>(FIONBIO), &nonBlocking), 0);
    char buffer[64] = "SSH-2.0-stale";
    EXPECT_EQ(recv(s, buffer, sizeof(buffer), 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
    nonBlocking = 0;
    EXPECT_EQ(ioctlsocket(s, static_cast<LONG>(FIONBIO), &nonBlocking), 0);
    EXPECT_TRUE(server.WriteAll("SSH-2.0-x\r\n", 11));
    EXPECT_EQ(recv(s, buffer, 4, MSG_PEEK), 4);
    EXPECT_EQ(ReceiveText(s, 11), "SSH-2.0-x\r\n");
    server = LoopbackStream();
    EXPECT_EQ(recv(s, buffer, sizeof(buffer), 0), 0);
    EXPECT_EQ(closesocket(s), 0);
    EXPECT_TRUE(WaitForCloses(1));
    EXPECT_EQ(Told(), (std::vector<std::string>{"6 p800 s0 r11 [SSH-2.0-x\r\n]", "2 p800 s0 r11"}));
}

TEST_F(StreamReports, ASilentAnalyzerLosesTheSocketButNotItsTraffic) {
    StartWinsock();
    Answer({kReport, {}, {3}});
    LoopbackStream server;
    const SOCKET s = ConnectSplit(server);
    {
        const platform::ScopedClockRate fast(1000);
        Play(s, server, {"s:zz"});
    }
    EXPECT_TRUE(analyzer_.WaitForEnded(1)) << "the channel is closed";
    Play(s, server, {"s:zz", "r:zz"});
    EXPECT_EQ(closesocket(s), 0);
    EXPECT_EQ(Told(), std::vector<std::string>{"3 p0 s0 r0"});
}

TEST_F(StreamReports, ASilentAnalyzerEndsASplitConnection) {
    StartWinsock();
    Answer({kReport | kForward, {}, {3}});
    LoopbackStream server;
    const SOCKET s = ConnectSplit(server);
    {
        const platform::ScopedClockRate fast(1000);
        send(s, "zz", 2, 0);
    }
    EXPECT_EQ(ReadText(server, 2), "");
    EXPECT_EQ(closesocket(s), 0);
    EXPECT_TRUE(WaitForCloses(1));
}

TEST_F(StreamReports, AnAnswerChangesTheVerdictOfTheSplitConnectionToo) {
    StartWinsock();
    analyzer_.SetScript([](const SeenRequest& request, AnalyzerConnection& connection) {
        ScriptedAnswer answer;
        answer.flags = request.operation == 12 ? kForward | kReport : kInspect;
        if (request.operation == 9) answer.action = 4;
        answer.data = request.data;
        if (request.operation != 2) connection.Answer(request, answer);
    });
    LoopbackStream server;
    const SOCKET s = ConnectSplit(server);
    Play(s, server, {"s:zz"});
    EXPECT_EQ(CountRequests(9), 1u) << "inspected from the answer to the send's report on";
    EXPECT_EQ(closesocket(s), 0);
    EXPECT_TRUE(WaitForCloses(1));
}

TEST_F(StreamReports, MemoryThatIsGoneFailsTheSendAlone) {
    StartWinsock();
    Answer({kReport});
    LoopbackStream server;
    const SOCKET s = ConnectSplit(server);
    EXPECT_EQ(send(s, reinterpret_cast<const char*>(8), 100, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
    Play(s, server, {"s:zz"});
    EXPECT_EQ(closesocket(s), 0);
    EXPECT_TRUE(WaitForCloses(1));
    EXPECT_EQ(Told(), (std::vector<std::string>{"3 p0 s0 r0", "2 p0 s2 r0"}));
}

}  // namespace
