// The ends of split connections in every order: of the application's socket, the server, the analyzer and
// Winsock itself. Whoever waits is told, and nothing stays behind.
#include <future>
#include <memory>
#include <optional>

#include "platform/kernel/fault_points.h"
#include "platform/testing/clock.h"
#include "tests/relay/application_socket.h"
#include "tests/relay/split_fixture.h"

namespace {

enum class End {
    kApplicationCloses,
    kApplicationHalfCloses,
    kApplicationResets,
    kServerCloses,
    kServerResets,
    kAnalyzerCloses,
    kAnalyzerResets,
    kLastCleanUp,
};
constexpr const char* kEndNames[] = {
    "application closes", "application half-closes", "application resets", "server closes",
    "server resets",      "analyzer closes",         "analyzer resets",    "last clean-up"};
constexpr int kEnds = 8;

/// A split connection, bytes of which have gone both ways, with a thread of the application that receives.
class SplitEnds : public SplitFixture {
  public:
    struct Mode {
        const char* name;
        std::uint32_t flags;
        bool answersEnds;
    };

  protected:
    void Establish(const Mode& mode) {
        const ScriptedAnalyzer::Script others =
            Splitting(mode.flags, mode.flags == kServe ? Inspector::kServe : Inspector::kPassOn);
        analyzer_.SetScript([others, mode](const SeenRequest& request, AnalyzerConnection& connection) {
            const bool isEnd = request.operation == 7 || request.operation == 8;
            if (isEnd && !mode.answersEnds) return;
            others(request, connection);
        });
        ASSERT_NO_FATAL_FAILURE(StartWinsock());
        closesocket(StreamSocket());  // loads the layer
        idle_ = platform::CountResources();
        // The relay's listener and one accept, its worker, its port; locks of pooled memory are few.
        idle_.lowerSockets += 2;
        idle_.layeredSockets += 2;
        idle_.heapBlocks += 2;
        idle_.completionPorts += 1;
        idle_.events += 1;
        // Winsock knows each thread that has made an overlapped request: the worker, and this one for a
        // report.
        idle_.threadHandles += 3;
        idle_.runningThreads += 1;
        idle_.criticalSections += 6;
        socket_ = StreamSocket();
        ASSERT_EQ(ConnectToPublic(socket_), 0);
        ASSERT_TRUE(SendAll(socket_, "ping"));
        if (mode.flags != kServe) {
            ASSERT_TRUE(origin_.Accept(server_.emplace()));
            ASSERT_EQ(ReadText(*server_, 4), "ping");
            ASSERT_TRUE(server_->WriteAll("PING", 4));
        }
        ASSERT_EQ(ReceiveText(socket_, 4), "PING");
        receiver_ = std::async(std::launch::async, [s = socket_] { return ReceiveText(s, 1000); });
    }

    void Make(End end) {
        const linger abort = {1, 0};
        switch (end) {
            case End::kApplicationHalfCloses:
                shutdown(socket_, SD_SEND);
                break;
            case End::kApplicationResets:
                setsockopt(socket_, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&abort),
                           sizeof(abort));
                [[fallthrough]];
            case End::kApplicationCloses:
                if (socket_ != INVALID_SOCKET) closesocket(socket_);
                socket_ = INVALID_SOCKET;
                break;
            case End::kServerResets:
                if (server_) server_->ResetPeer();
                [[fallthrough]];
            case End::kServerCloses:
                server_.reset();
                break;
            case End::kAnalyzerCloses:
                analyzer_.CloseConnections();
                break;
            case End::kAnalyzerResets:
                analyzer_.ResetConnections();
                break;
            case End::kLastCleanUp:
                if (!cleanedUp_) StopWinsock();
                cleanedUp_ = true;
                break;
        }
    }

    /// Ends what has not ended: then the relay holds what it needs to wait for the next connection, and after
    /// the last clean-up nothing.
    void EndRest() {
        Make(End::kApplicationCloses);
        EXPECT_EQ(receiver_.get().find("PING"), std::string::npos);
        Make(End::kServerCloses);
        if (!cleanedUp_) {
            EXPECT_EQ(platform::SettleTo(idle_), "");
        }
        Make(End::kLastCleanUp);
        cleanedUp_ = false;
    }

    platform::ResourceCounts idle_;
    SOCKET socket_ = INVALID_SOCKET;
    std::optional<LoopbackStream> server_;
    std::future<std::string> receiver_;
    bool cleanedUp_ = false;
};

class SplitEndsOf : public SplitEnds, public ::testing::WithParamInterface<SplitEnds::Mode> {};

TEST_P(SplitEndsOf, EveryOrderLeavesNothing) {
    for (int first = 0; first < kEnds; ++first) {
        for (int second = 0; second < kEnds; ++second) {
            SCOPED_TRACE(std::string(kEndNames[first]) + ", " + kEndNames[second]);
            const platform::ResourceCounts before = platform::CountResources();
            ASSERT_NO_FATAL_FAILURE(Establish(GetParam()));
            Make(static_cast<End>(first));
            Make(static_cast<End>(second));
            EndRest();
            ASSERT_EQ(platform::SettleTo(before), "");
            if (HasFailure()) return;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Connections, SplitEndsOf,
                         ::testing::Values(SplitEnds::Mode{"Forwarded", SplitEnds::kForward, true},
                                           SplitEnds::Mode{"Inspected", SplitEnds::kInspect, true},
                                           SplitEnds::Mode{"InspectedInSilence", SplitEnds::kInspect, false},
                                           SplitEnds::Mode{"Served", SplitEnds::kServe, true}),
                         [](const auto& mode) { return std::string(mode.param.name); });

TEST_F(SplitEnds, ASendThatHasFailedIsNotWaitedFor) {
    ASSERT_NO_FATAL_FAILURE(Establish({"forwarded", kForward, true}));
    const platform::ScopedClockRate stopped(0);
    {
        const platform::ScopedFault fault({"WSASend", 1});
        ASSERT_TRUE(SendAll(socket_, "lost"));
        EXPECT_EQ(ReadText(*server_, 4), "") << "the server's side ends";
        EXPECT_EQ(platform::FaultsStruck(), 1);
    }
    EndRest();
}

/// What comes back from a server that refuses, and from one that never answers: to a receive that is under
/// way, and then to a send and another receive.
TEST_F(SplitEnds, AServerOutOfReachIsToldByTheNextCall) {
    const ClosedPort nobody;
    RouteTo("198.51.100.30:80", nobody.Port());
    RouteToNowhere("198.51.100.31:80");
    StartWinsock();
    const struct {
        const char* server;
        int error;
    } rows[] = {
        {"198.51.100.30", WSAECONNREFUSED},
#ifndef _WIN32  // whose own provider takes its real time to give up
        {"198.51.100.31", WSAETIMEDOUT},
#endif
    };
    using Kind = ApplicationSocket::Kind;
    for (const auto& row : rows) {
        for (const Kind kind : {Kind::kBlocking, Kind::kPolled, Kind::kOverlapped}) {
            SCOPED_TRACE(std::string(row.server) + ", kind " + std::to_string(static_cast<int>(kind)));
            ApplicationSocket application(kind);
            ASSERT_EQ(application.Connect(Ipv4(row.server, 80)), 0);
            char byte = 0;
            application.BeginReceive(&byte, 1);
            platform::AdvanceClock(30000);
            EXPECT_EQ(application.EndReceive(), 0u);
            EXPECT_EQ(application.LastError(), row.error);
            EXPECT_FALSE(application.Send("x", 1));
            EXPECT_EQ(application.LastError(), row.error);
            EXPECT_EQ(application.Receive(&byte, 1), 0u);
            EXPECT_EQ(application.LastError(), row.error);
        }
    }
    ApplicationSocket application(Kind::kWithoutOverlapped);
    EXPECT_EQ(application.Connect(Ipv4(rows[0].server, 80)), WSAEFAULT);
}

/// The analyzer's answer to the connect comes while the application already has its connection, so the close
/// is early only by chance; but it may be.
TEST_F(SplitEnds, WhatWasSentBeforeAnEarlyCloseArrives) {
    StartWinsock();
    for (const std::uint32_t flags : {kForward, kInspect}) {
        analyzer_.SetScript(Splitting(flags));
        for (int i = 0; i < 50; ++i) {
            const SOCKET s = StreamSocket();
            ASSERT_EQ(ConnectToPublic(s), 0);
            ASSERT_TRUE(SendAll(s, "last words"));
            EXPECT_EQ(closesocket(s), 0);
            LoopbackStream server;
            ASSERT_TRUE(origin_.Accept(server));
            EXPECT_EQ(ReadText(server, 100), "last words");
        }
    }
}

/// What the analyzer has released waits for a server that does not read, but not for ever.
TEST_F(SplitEnds, AServerThatTakesNothingIsGivenTenSeconds) {
    const ScriptedAnalyzer::Script others = Splitting(kInspect);
    analyzer_.SetScript([others](const SeenRequest& request, AnalyzerConnection& connection) {
        if (request.connection == 1 || request.operation != 9) return others(request, connection);
        ScriptedAnswer answer;
        answer.action = 4;
        answer.data.resize(1000000);  // more than the buffers on the way take
        connection.Answer(request, answer);
        answer.action = 6;
        answer.data.clear();
        connection.Answer(request, answer);
    });
    StartWinsock();
    LoopbackStream bystandersServer;
    const SOCKET bystander = ConnectSplit(bystandersServer);
    const auto roundTrip = [&] {
        ASSERT_TRUE(SendAll(bystander, "ping"));
        ASSERT_EQ(ReadText(bystandersServer, 4), "ping");
    };
    roundTrip();
    platform::ResourceCounts before = platform::CountResources();
    before.threadHandles += 1;  // Winsock knows each thread that has made an overlapped request: this one
    {
        const platform::ScopedClockRate stopped(0);
        LoopbackStream server;
        const SOCKET s = ConnectSplit(server);
        ASSERT_TRUE(SendAll(s, "question"));
        EXPECT_EQ(ReadText(server, 1).size(), 1u);
        EXPECT_EQ(closesocket(s), 0);
        ASSERT_TRUE(analyzer_.WaitForEnded(1)) << "nothing else of the connection is left";
        platform::AdvanceClock(9000);
        roundTrip();
        EXPECT_EQ(platform::CountResources().lowerSockets, before.lowerSockets + 1);
        platform::AdvanceClock(2000);
        EXPECT_EQ(platform::SettleTo(before), "");
    }
    EXPECT_EQ(closesocket(bystander), 0);
}

}  // namespace
