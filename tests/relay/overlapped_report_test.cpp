// What the analyzer is told of overlapped receives and sends, and what its answers do to them, however the
// application wants to be told of their ends.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <string>

#include "platform/testing/clock.h"
#include "tests/provider/overlapped_fixture.h"
#include "tests/relay/traffic_fixture.h"

namespace {

constexpr std::uint32_t kRecvProtocol = 6;
const std::string kSsh = "SSH-2.0-OpenSSH_9.2\r\n";

/// How the application waits for an end.
enum class Telling { kEvent, kRoutine, kPort };

class OverlappedReports : public TrafficFixture, public ::testing::WithParamInterface<Mode> {
  protected:
    void SetUp() override {
        TrafficFixture::SetUp();
        Answer({});
        StartWinsock();
        StartLayerIn(GetParam());
        port_ = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
        ASSERT_NE(port_, nullptr);
    }
    void TearDown() override {
        if (port_ != nullptr) CloseHandle(port_);
        port_ = nullptr;
        TrafficFixture::TearDown();
    }

    /// An answer to the first request of this kind has to wait until ReleaseAnswers; the next ones don't.
    void HoldFirstAnswerTo(std::uint32_t operation) {
        auto held = std::make_shared<bool>(false);
        const ScriptedAnalyzer::Script relay = Splitting(kReport);
        analyzer_.SetScript([=](const SeenRequest& request, AnalyzerConnection& connection) {
            if (request.operation == operation && !std::exchange(*held, true)) {
                std::unique_lock<std::mutex> lock(mutex_);
                changed_.wait(lock, [this] { return released_; });
            }
            relay(request, connection);
        });
    }
    void ReleaseAnswers() {
        const std::lock_guard<std::mutex> lock(mutex_);
        released_ = true;
        changed_.notify_all();
    }

    bool WaitForReports(std::uint32_t operation, std::size_t count) const {
        for (;;) {
            const std::size_t seen = analyzer_.Requests().size();
            if (CountRequests(operation) >= count) return true;
            if (!analyzer_.WaitForRequests(seen + 1)) return false;
        }
    }

    HANDLE port_ = nullptr;

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool released_ = false;
};

/// A receive of which the application is told in one of the three ways; its array is gone after the call.
class ToldReceive : public Request {
  public:
    ToldReceive(SOCKET s, Telling telling, HANDLE port) : socket_(s), telling_(telling), port_(port) {
        overlapped.hEvent = telling == Telling::kEvent ? WSACreateEvent() : nullptr;
        const auto routine = telling == Telling::kRoutine ? CountCompletion : nullptr;
        EXPECT_EQ(Receive(s, *this, routine), WSA_IO_PENDING);
        buffer = {1, nullptr};
    }
    ~ToldReceive() {
        if (overlapped.hEvent != nullptr) WSACloseEvent(overlapped.hEvent);
    }
    ToldReceive(const ToldReceive&) = delete;
    ToldReceive& operator=(const ToldReceive&) = delete;

    /// Waits, with the clock as it runs, until its end has been told.
    bool IsToldWithin(DWORD milliseconds) {
        if (telling_ == Telling::kEvent)
            return WaitForSingleObject(overlapped.hEvent, milliseconds) == WAIT_OBJECT_0;
        if (telling_ == Telling::kRoutine) {
            while (completions == 0 && SleepEx(milliseconds, TRUE) == WAIT_IO_COMPLETION) {
            }
            return completions == 1;
        }
        DWORD count = 0;
        ULONG_PTR key = 0;
        LPOVERLAPPED told = nullptr;
        GetQueuedCompletionStatus(port_, &count, &key, &told, milliseconds);
        return told == &overlapped;
    }

    /// The text, or the error in brackets.
    std::string End() {
        EXPECT_TRUE(IsToldWithin(20000));
        DWORD flags = 0;
        DWORD count = 99;
        if (WSAGetOverlappedResult(socket_, &overlapped, &count, FALSE, &flags))
            return std::string(bytes, count);
        EXPECT_EQ(count, 0u) << "no data of a refused receive";
        return "[" + std::to_string(WSAGetLastError()) + "]";
    }

  private:
    const SOCKET socket_;
    const Telling telling_;
    const HANDLE port_;
};

INSTANTIATE_TEST_SUITE_P(Modes, OverlappedReports,
                         ::testing::Values(Mode::kCompletionPort, Mode::kAlertable, Mode::kForeignPort),
                         [](const auto& parameter) { return NameOf(parameter.param); });

TEST_P(OverlappedReports, SayTheSameHoweverTheEndIsTold) {
    struct Row {
        const char* name;
        std::vector<std::uint32_t> refused;
        std::vector<std::string> ends;
    };
    const Row rows[] = {
        {"allowed", {}, {kSsh, "zz"}},
        {"refused at the first bytes", {kRecvProtocol}, {"[10053]", "zz"}},
        {"refused later", {5}, {kSsh, "[10053]"}},
    };
    const std::vector<std::string> told = {"6 p800 s0 r21 [" + kSsh + "]", "5 p800 s0 r23", "2 p800 s0 r23"};
    std::size_t closes = 0;
    for (const Row& row : rows) {
        for (const std::uint32_t way : {0u, kForward}) {
            for (const Telling telling : {Telling::kEvent, Telling::kRoutine, Telling::kPort}) {
                // No lower socket can be on the layer's ports there, and no relay without one.
                const bool isForeign = GetParam() == Mode::kForeignPort;
                if (isForeign && way != 0) continue;
                SCOPED_TRACE(std::string(row.name) + (way != 0 ? ", split" : ""));
                SCOPED_TRACE(static_cast<int>(telling));
                Answer({kReport | way, row.refused});
                const std::size_t before = analyzer_.Requests().size();
                LoopbackStream server;
                const SOCKET s = ConnectSplit(server);
                if (telling == Telling::kPort) {
                    EXPECT_NE(CreateIoCompletionPort(reinterpret_cast<HANDLE>(s), port_, 0, 0), nullptr);
                }
                if (isForeign) PutLowerSocketsOnAForeignPort();
                ToldReceive first(s, telling, port_);
                EXPECT_TRUE(server.WriteAll(kSsh.data(), kSsh.size()));
                EXPECT_EQ(first.End(), row.ends[0]);
                ToldReceive second(s, telling, port_);
                EXPECT_TRUE(server.WriteAll("zz", 2));
                EXPECT_EQ(second.End(), row.ends[1]);
                platform::DisarmFaults();
                EXPECT_EQ(closesocket(s), 0);
                EXPECT_TRUE(WaitForCloses(++closes));
                EXPECT_EQ(Told(before), told);
            }
        }
    }
}

TEST_P(OverlappedReports, ARefusedSendNeverLeaves) {
    Answer({kReport, {3}});
    LoopbackStream server;
    const SOCKET s = ConnectSplit(server);
    EventRequest refused;
    EXPECT_EQ(Send(s, refused), WSAECONNABORTED);
    Answer({kReport});
    EventRequest allowed;
    allowed.buffer.len = 3;
    EXPECT_TRUE(WasTaken(Send(s, allowed)));
    EXPECT_EQ(allowed.Wait(s), 0u);
    EXPECT_EQ(closesocket(s), 0);
    EXPECT_EQ(ReadText(server, 64), std::string(3, '\0')) << "and nothing before or behind it";
}

TEST_P(OverlappedReports, ADatagramsSenderIsTold) {
    const SOCKET peer = NewOverlappedSocket(SOCK_DGRAM);
    sockaddr_in name = Ipv4("127.0.0.1", 0);
    int length = sizeof(name);
    EXPECT_EQ(bind(peer, Plain(&name), length), 0);
    EXPECT_EQ(getsockname(peer, Plain(&name), &length), 0);
    RouteTo("203.0.113.10:53", ntohs(name.sin_port));
    ApplyMachine();
    for (const bool refused : {false, true}) {
        SCOPED_TRACE(refused);
        Answer({0, {refused ? kRecvProtocol : 0}});
        const SOCKET s = NewOverlappedSocket(SOCK_DGRAM);
        sockaddr_in destination = Ipv4("203.0.113.10", 53);
        EXPECT_EQ(sendto(s, "zz", 2, 0, Plain(&destination), sizeof(destination)), 2);
        char text[8];
        sockaddr_in back{};
        length = sizeof(back);
        EXPECT_EQ(recvfrom(peer, text, sizeof(text), 0, Plain(&back), &length), 2);
        EventRequest request;
        sockaddr_in from{};
        DWORD flags = 0;
        length = sizeof(from);
        EXPECT_EQ(WSARecvFrom(s, &request.buffer, 1, nullptr, &flags, Plain(&from), &length,
                              &request.overlapped, nullptr),
                  SOCKET_ERROR);
        const std::size_t before = analyzer_.Requests().size();
        EXPECT_EQ(sendto(peer, kSsh.data(), static_cast<int>(kSsh.size()), 0, Plain(&back), sizeof(back)),
                  static_cast<int>(kSsh.size()));
        EXPECT_EQ(request.Wait(s), refused ? DWORD{WSAECONNABORTED} : 0u);
        EXPECT_EQ(request.transferred, refused ? 0u : kSsh.size());
        EXPECT_EQ(Told(before), std::vector<std::string>{"6 p800 s2 r21 [" + kSsh + "]"});
        EXPECT_EQ(analyzer_.Requests().back().Destination(), "203.0.113.10:53");
        const std::size_t told = analyzer_.Requests().size();
        EXPECT_EQ(closesocket(s), 0);
        // Its report is none of the next socket's.
        EXPECT_TRUE(analyzer_.WaitForRequests(told + 1));
    }
    EXPECT_EQ(closesocket(peer), 0);
}

TEST_P(OverlappedReports, ASlowAnswerHoldsUpItsOwnSocketAlone) {
    HoldFirstAnswerTo(kRecvProtocol);
    const platform::ScopedClockRate stopped(0);
    LoopbackStream slowServer;
    LoopbackStream server;
    const SOCKET slow = ConnectSplit(slowServer);
    const SOCKET s = ConnectSplit(server);
    if (GetParam() == Mode::kForeignPort) PutLowerSocketsOnAForeignPort();
    ToldReceive held(slow, Telling::kEvent, nullptr);
    ToldReceive behind(slow, Telling::kEvent, nullptr);
    EXPECT_TRUE(slowServer.WriteAll(kSsh.data(), kSsh.size()));
    EXPECT_TRUE(WaitForReports(kRecvProtocol, 1));
    slowServer = LoopbackStream();
    for (int i = 0; i < 3; ++i) {
        ToldReceive other(s, Telling::kRoutine, nullptr);
        EXPECT_TRUE(server.WriteAll("zz", 2));
        EXPECT_EQ(other.End(), "zz");
    }
    EXPECT_FALSE(held.IsToldWithin(0));
    EXPECT_FALSE(behind.IsToldWithin(0));
    ReleaseAnswers();
    EXPECT_EQ(held.End(), kSsh);
    EXPECT_EQ(behind.End(), "");
    EXPECT_EQ(closesocket(slow), 0);
    EXPECT_EQ(closesocket(s), 0);
}

TEST_P(OverlappedReports, ACloseOrTheCleanUpEndsTheWaitForAnAnswer) {
    for (const bool cleansUp : {false, true}) {
        for (const std::uint32_t way : {0u, kForward}) {
            if (GetParam() == Mode::kForeignPort && (way != 0 || cleansUp)) continue;
            SCOPED_TRACE(std::string(cleansUp ? "clean-up" : "close") + (way != 0 ? ", split" : ""));
            Answer({kReport | way, {}, {kRecvProtocol}});
            LoopbackStream server;
            const SOCKET s = ConnectSplit(server);
            if (GetParam() == Mode::kForeignPort) PutLowerSocketsOnAForeignPort();
            const std::size_t reports = CountRequests(kRecvProtocol);
            ToldReceive looked(s, Telling::kEvent, nullptr);
            // A routine that has not run keeps the library.
            ToldReceive pending(s, cleansUp ? Telling::kEvent : Telling::kRoutine, nullptr);
            EXPECT_TRUE(server.WriteAll(kSsh.data(), kSsh.size()));
            EXPECT_TRUE(WaitForReports(kRecvProtocol, reports + 1));
            if (cleansUp) {
                StopWinsock();
            } else {
                const platform::ScopedClockRate stopped(0);
                EXPECT_EQ(closesocket(s), 0);
            }
            EXPECT_TRUE(looked.IsToldWithin(20000));
            EXPECT_TRUE(pending.IsToldWithin(20000));
            // The end of the relay ends a split connection first.
            if (way == 0 || !cleansUp) {
                EXPECT_EQ(pending.overlapped.OffsetHigh, static_cast<DWORD>(WSA_OPERATION_ABORTED));
            }
            if (way == 0 && cleansUp) {
                EXPECT_EQ(looked.overlapped.OffsetHigh, static_cast<DWORD>(WSA_OPERATION_ABORTED));
            }
            platform::DisarmFaults();
            if (!cleansUp) continue;
            StartWinsock();
            StartLayerIn(GetParam());
        }
    }
}

}  // namespace
