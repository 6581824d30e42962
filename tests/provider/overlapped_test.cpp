// Overlapped requests through the loaded layer, in all of its modes: whatever ends a request, the
// application hears of it exactly once, in the way it asked for, and nothing stays behind.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "tests/provider/overlapped_fixture.h"

namespace {

// Under Wine a request takes many times as long.
#ifdef _WIN32
constexpr int kRandomRequests = 20'000;
#else
constexpr int kRandomRequests = 100'000;
#endif

INSTANTIATE_TEST_SUITE_P(Modes, OverlappedTest,
                         ::testing::Values(Mode::kCompletionPort, Mode::kAlertable, Mode::kForeignPort),
                         [](const auto& parameter) { return NameOf(parameter.param); });

}  // namespace

TEST_P(OverlappedTest, ARoutineRunsOnItsThreadInAnAlertableWaitOnly) {
    EchoPeer peer;
    const SOCKET s = Connected(peer.Port());
    Request receive;
    ASSERT_TRUE(WasTaken(Receive(s, receive, CountCompletion)));
    EventRequest send;
    send.buffer.len = 7;
    ASSERT_TRUE(WasTaken(Send(s, send)));
    EXPECT_EQ(send.Wait(s), 0u);
    EXPECT_EQ(send.transferred, 7u);
    // Waits without being alertable until the request is over.
    DWORD bytes = 0;
    DWORD flags = 0;
    EXPECT_TRUE(WSAGetOverlappedResult(s, &receive.overlapped, &bytes, TRUE, &flags));
    EXPECT_EQ(bytes, 7u);
    EXPECT_EQ(receive.completions, 0);
    while (receive.completions == 0)
        ASSERT_EQ(SleepEx(20000, TRUE), static_cast<DWORD>(WAIT_IO_COMPLETION));
    EXPECT_EQ(receive.completions, 1);
    EXPECT_EQ(receive.error, 0u);
    EXPECT_EQ(receive.transferred, 7u);
    EXPECT_EQ(receive.thread, GetCurrentThreadId());
    closesocket(s);
}

TEST_P(OverlappedTest, ARoutineOfAnEndedThreadRunsOnNoOther) {
    EchoPeer peer;
    const SOCKET s = Connected(peer.Port());
    const SOCKET own = Connected(peer.Port());
    Request orphan;
    std::thread([&] { EXPECT_TRUE(WasTaken(Receive(s, orphan, CountCompletion))); }).join();
    std::thread([&] {
        // What names this thread to the layer must not be what named the other.
        Request receive;
        EXPECT_TRUE(WasTaken(Receive(own, receive, CountCompletion)));
        send(s, "x", 1, 0);
        while (__atomic_load_n(&orphan.overlapped.Internal, __ATOMIC_ACQUIRE) == 0x103)
            std::this_thread::yield();
        send(own, "x", 1, 0);
        while (receive.completions == 0)
            ASSERT_EQ(SleepEx(20000, TRUE), static_cast<DWORD>(WAIT_IO_COMPLETION));
        closesocket(own);
        closesocket(s);
        StopWinsock();
        SleepEx(0, TRUE);
    }).join();
    EXPECT_EQ(orphan.completions, 0);
}

TEST_P(OverlappedTest, ClosingEndsWhatIsPendingAndKeepsTheHandleUntilThen) {
    EchoPeer peer;
    const SOCKET s = Connected(peer.Port());
    EventRequest byEvent;
    Request byRoutine;
    ASSERT_EQ(Receive(s, byEvent), WSA_IO_PENDING);
    ASSERT_EQ(Receive(s, byRoutine, CountCompletion), WSA_IO_PENDING);
    EXPECT_EQ(closesocket(s), 0);
    EXPECT_EQ(byEvent.Wait(s), static_cast<DWORD>(WSA_OPERATION_ABORTED));
    while (byRoutine.completions == 0)
        ASSERT_EQ(SleepEx(20000, TRUE), static_cast<DWORD>(WAIT_IO_COMPLETION));
    EXPECT_EQ(byRoutine.error, static_cast<DWORD>(WSA_OPERATION_ABORTED));
    EXPECT_EQ(byRoutine.completions, 1);
}

TEST_P(OverlappedTest, TheLastCleanUpEndsWhatIsPending) {
    EchoPeer peer;
    const SOCKET s = Connected(peer.Port());
    EventRequest receive;
    ASSERT_EQ(Receive(s, receive), WSA_IO_PENDING);
    StopWinsock();
    EXPECT_EQ(WaitForSingleObject(receive.overlapped.hEvent, 20000), WAIT_OBJECT_0);
    EXPECT_NE(receive.overlapped.Internal, 0x103u);
    EXPECT_EQ(receive.overlapped.OffsetHigh, static_cast<DWORD>(WSA_OPERATION_ABORTED));
}

TEST_P(OverlappedTest, TheLastCleanUpNeedsNoPackets) {
    EchoPeer peer;
    const SOCKET s = Connected(peer.Port());
    EventRequest receive;
    ASSERT_EQ(Receive(s, receive), WSA_IO_PENDING);
    FailCall("PostQueuedCompletionStatus", ERROR_NO_SYSTEM_RESOURCES, true);
    StopWinsock();
}

namespace {

/// A request of random traffic, which of the sockets it was made on, and its direction.
struct TrafficRequest : Request {
    std::size_t socket = 0;
    bool sends = false;
};

/// Random sends, receives and closes on many sockets, each request told to one completion port.
class RandomTraffic {
  public:
    RandomTraffic(std::uint16_t port, unsigned seed) : peerPort_(port), random_(seed) {
        port_ = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
        for (std::size_t i = 0; i < kSockets; ++i)
            Open(i);
    }
    ~RandomTraffic() { CloseHandle(port_); }
    RandomTraffic(const RandomTraffic&) = delete;
    RandomTraffic& operator=(const RandomTraffic&) = delete;

    void Run(int operations) {
        for (int i = 0; i < operations; ++i) {
            Step();
            while (Drain(0)) {
            }
        }
        for (const SOCKET s : sockets_)
            closesocket(s);
        while (outstanding_ > 0 && Drain(20000)) {
        }
    }

    int Outstanding() const { return outstanding_; }
    /// What was not as it should be of each completion that was wrong.
    const std::vector<std::string>& Wrong() const { return wrong_; }
    int Taken() const { return taken_; }

  private:
    static constexpr std::size_t kSockets = 64;

    void Open(std::size_t index) {
        const SOCKET s = Connected(peerPort_);
        // Once it answers, the peer makes no more sockets in this process.
        char byte = 0;
        EXPECT_EQ(send(s, &byte, 1, 0), 1);
        EXPECT_EQ(recv(s, &byte, 1, 0), 1);
        EXPECT_NE(CreateIoCompletionPort(reinterpret_cast<HANDLE>(s), port_, index, 0), nullptr);
        sockets_[index] = s;
    }

    void Reopen(std::size_t index) {
        EXPECT_EQ(closesocket(sockets_[index]), 0);
#ifdef _WIN32
        // Wine retries a receive on whatever socket has the value of its handle by then, and never ends it
        // when that is another one: so no value is used again before.
        while (pending_[index] > 0 && Drain(20000)) {
        }
#endif
        Open(index);
    }

    void Step() {
        const std::size_t index = random_() % kSockets;
        const unsigned what = random_() % 200;
        if (what == 0) {
            Reopen(index);
            return;
        }
        TrafficRequest* const request = Take(index);
        const SOCKET s = sockets_[index];
        request->sends = what < 100;
        if (WasTaken(request->sends ? Send(s, *request) : Receive(s, *request))) {
            ++taken_;
            ++outstanding_;
            ++pending_[index];
            request->completions = 1;  // due
        } else {
            free_.push_back(request);
        }
    }

    TrafficRequest* Take(std::size_t index) {
        if (free_.empty()) free_.push_back(&requests_.emplace_back());
        TrafficRequest* const request = free_.front();
        free_.pop_front();
        request->overlapped = WSAOVERLAPPED{};
        request->socket = index;
        return request;
    }

    bool Drain(DWORD milliseconds) {
        DWORD bytes = 0;
        ULONG_PTR key = 0;
        LPOVERLAPPED overlapped = nullptr;
        const BOOL succeeded = GetQueuedCompletionStatus(port_, &bytes, &key, &overlapped, milliseconds);
        if (overlapped == nullptr) return false;
        const DWORD error = succeeded ? 0 : GetLastError();
        auto* const request = static_cast<TrafficRequest*>(reinterpret_cast<Request*>(overlapped));
        // Nothing but the close of its socket ends a request without success.
        if (error != 0 && error != ERROR_OPERATION_ABORTED)
            wrong_.push_back((request->sends ? "send ends with " : "receive ends with ") +
                             std::to_string(error));
        if (--request->completions != 0)
            wrong_.push_back("completions due: " + std::to_string(request->completions));
        if (key != request->socket) wrong_.emplace_back("told with the key of another socket");
        --outstanding_;
        --pending_[request->socket];
        free_.push_back(request);
        return true;
    }

    std::uint16_t peerPort_;
    std::mt19937 random_;
    HANDLE port_;
    SOCKET sockets_[kSockets];
    int pending_[kSockets] = {};
    std::deque<TrafficRequest> requests_;
    std::deque<TrafficRequest*> free_;
    int outstanding_ = 0;
    int taken_ = 0;
    std::vector<std::string> wrong_;
};

class OverlappedTraffic : public OverlappedTest {};

INSTANTIATE_TEST_SUITE_P(Modes, OverlappedTraffic,
                         ::testing::Values(Mode::kCompletionPort, Mode::kStrayPackets, Mode::kAlertable),
                         [](const auto& parameter) { return NameOf(parameter.param); });

}  // namespace

TEST_P(OverlappedTraffic, CompletesEachRequestOnce) {
    if (GetParam() == Mode::kStrayPackets) QueueStrayPackets();
    const char* const given = std::getenv("QX_TEST_SEED");
    const unsigned seed = given != nullptr ? static_cast<unsigned>(std::atoi(given)) : std::random_device()();
    std::printf("QX_TEST_SEED=%u\n", seed);
    EchoPeer peer;
    RandomTraffic traffic(peer.Port(), seed);
    traffic.Run(kRandomRequests);
    EXPECT_EQ(traffic.Outstanding(), 0);
    EXPECT_EQ(traffic.Wrong(), std::vector<std::string>());
    EXPECT_GT(traffic.Taken(), kRandomRequests / 2);
}
