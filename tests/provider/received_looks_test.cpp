// Receives whose data is looked at when they have ended, between fakes and in every mode of the layer: what
// is looked at, what the application gets of it, and whom a look that takes long holds up.
#include <algorithm>
#include <deque>
#include <iterator>
#include <vector>

#include "tests/provider/overlapped_requests.h"

namespace {

/// Looks that wait for the test.
class ReceivedLooks : public OverlappedRequests {
  protected:
    void SetUp() override {
        gate_ = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        OverlappedRequests::SetUp();
    }
    void TearDown() override {
        OverlappedRequests::TearDown();
        CloseHandle(gate_);
    }

    /// A socket that has a channel to the analyzer.
    SOCKET Open(int type = SOCK_STREAM) {
        const SOCKET s = OverlappedRequests::Open(type);
        ContextOf(s)->RelayIndex = 1;
        return s;
    }

    /// Has every look wait for the gate, but those at the sockets that are quick.
    void LookSlowly() {
        Fake().received = [this](SocketContext* context, const WSABUF*, const sockaddr*) {
            if (context == quick_) return;
            looking_.Increment();
            EXPECT_EQ(WaitForSingleObject(gate_, kRequestPatience), WAIT_OBJECT_0);
        };
    }
    void AwaitLooks(LONG count) {
        while (looking_ < count)
            std::this_thread::yield();
    }
    void OpenGate() { SetEvent(gate_); }

    /// A receive that has ended below with bytes.
    void StartEnded(SOCKET s, Request& request) {
        const std::size_t before = lower_->Count();
        EXPECT_EQ(Start(OverlappedType::kRecv, s, request), WSA_IO_PENDING);
        lower_->WaitFor(before + 1);
        lower_->End(before, 9, 0);
    }

    /// Waits until so many ends of a socket wait behind the one that is being looked at.
    static void AwaitWaiting(SOCKET s, std::size_t count) {
        for (std::size_t waiting = 0; waiting != count; std::this_thread::yield()) {
            const Locker lock(OverlappedLock);
            waiting = 0;
            const OverlappedOperation* end = ContextOf(s)->WaitingEnds.First;
            for (; end != nullptr; end = end->NextPending)
                ++waiting;
        }
    }

    /// The request of which the application is told next; its routine has run.
    static Request* NextTold() {
        const QueuedRoutine routine = TakeRoutine();
        if (routine.first == nullptr) return nullptr;
        auto* const record = reinterpret_cast<OverlappedOperation*>(routine.second)->CallerOverlapped;
        routine.first(routine.second);
        return reinterpret_cast<Request*>(record);
    }

    HANDLE gate_ = nullptr;
    Atomic<LONG> looking_;
    const SocketContext* quick_ = nullptr;
};

INSTANTIATE_TEST_SUITE_P(Modes, ReceivedLooks,
                         ::testing::Values(RequestMode::kCompletionPort, RequestMode::kAlertable,
                                           RequestMode::kForeignPort),
                         [](const auto& mode) { return NameOf(mode.param); });

TEST_P(ReceivedLooks, ShowWhatHasComeAndMayRefuseIt) {
    const struct {
        const char* what;
        int answer;
        DWORD flags;
        bool blocks;
        int blockError;
        DWORD bytes;
        DWORD error;
    } rows[] = {
        {"later", WSA_IO_PENDING, 0, false, 0, 9, 0},
        {"at once", 0, 0, false, 0, LowerRequests::kBytesAtOnce, 0},
        {"refused", WSA_IO_PENDING, 0, true, 0, 9, WSAECONNABORTED},
        {"refused, with an error of its own", WSA_IO_PENDING, 0, true, WSAETIMEDOUT, 9, WSAETIMEDOUT},
        {"at once and refused", 0, 0, true, 0, LowerRequests::kBytesAtOnce, WSAECONNABORTED},
        {"nothing has come", WSA_IO_PENDING, 0, false, 0, 0, 0},
        {"it has failed", WSAENETDOWN, 0, true, 0, 0, WSAENETDOWN},
        {"peeked at", WSA_IO_PENDING, MSG_PEEK, true, 0, 0, 0},
    };
    for (const auto& row : rows) {
        for (const OverlappedType type : {OverlappedType::kRecv, OverlappedType::kRecvFrom}) {
            SCOPED_TRACE(row.what);
            SCOPED_TRACE(static_cast<DWORD>(type));
            const bool isDatagram = type == OverlappedType::kRecvFrom;
            const SOCKET s = Open(isDatagram ? SOCK_DGRAM : SOCK_STREAM);
            Request request;
            request.flags = row.flags;
            char* const bytes = request.buffer.buf;
            Fake().receivedBytes.clear();
            Fake().received = [&](SocketContext* context, const WSABUF* buffers, const sockaddr* from) {
                EXPECT_EQ(buffers[0].buf, bytes);
                EXPECT_EQ(from != nullptr, isDatagram);
                EXPECT_EQ(context->DestinationAddress.Port(), isDatagram ? 53 : 0);
                EXPECT_EQ(context->BytesRecv, row.bytes) << "they are in the report's counts";
                context->BlockError = row.blockError;
                context->Blocked = row.blocks;
            };
            lower_->Answer(row.answer);
            const std::size_t before = lower_->Count();
            const int result = Start(type, s, request);
            // The array is the application's again.
            request.buffer = {1, nullptr};
            lower_->WaitFor(before + 1);
            lower_->End(before, row.flags != 0 ? 7 : row.bytes, 0);
            EXPECT_EQ(Ended(result, request, true), row.error);
            if (row.error != 0) {
                EXPECT_EQ(request.record.InternalHigh, 0u);
            }
            EXPECT_EQ(Fake().receivedBytes,
                      row.bytes == 0 ? std::vector<DWORD>{} : std::vector<DWORD>{row.bytes});
            CloseLetGo(s);
        }
    }
}

TEST_P(ReceivedLooks, HoldUpNoOtherSocket) {
    LookSlowly();
    // More than there are workers, and more than there may be threads.
    for (const int slowSockets : {12, 70}) {
        SCOPED_TRACE(slowSockets);
        const SOCKET other = Open();
        quick_ = ContextOf(other);
        std::vector<SOCKET> sockets;
        std::deque<Request> slow;
        for (int i = 0; i < slowSockets; ++i) {
            sockets.push_back(Open());
            StartEnded(sockets.back(), slow.emplace_back());
        }
        AwaitLooks(std::min(slowSockets, 64));
        Request quick;
        StartEnded(other, quick);
        if (slowSockets < 64) {
            EXPECT_EQ(NextTold(), &quick);
        }
        OpenGate();
        for (std::size_t i = slowSockets < 64 ? 1 : 0; i <= slow.size(); ++i)
            ASSERT_NE(NextTold(), nullptr);
        for (const Request& request : slow)
            EXPECT_EQ(request.completions, 1);
        for (const SOCKET s : sockets)
            CloseLetGo(s);
        CloseLetGo(other);
        ResetEvent(gate_);
        looking_ = 0;
    }
}

TEST_P(ReceivedLooks, HoldUpTheirOwnSocketsEndsInOrder) {
    LookSlowly();
    const SOCKET s = Open();
    Request first;
    Request rest[4];
    StartEnded(s, first);
    AwaitLooks(1);
    const OverlappedType types[] = {OverlappedType::kSend, OverlappedType::kRecv, OverlappedType::kIoctl,
                                    OverlappedType::kRecv};
    const int errors[] = {0, 0, WSAECONNRESET, WSAECONNRESET};
    for (std::size_t i = 0; i < std::size(rest); ++i) {
        EXPECT_EQ(Start(types[i], s, rest[i]), WSA_IO_PENDING);
        lower_->WaitFor(i + 2);
        lower_->End(i + 1, 5, errors[i]);
        AwaitWaiting(s, i + 1);
    }
    Request atOnce;
    lower_->Answer(0);
    EXPECT_EQ(Start(OverlappedType::kRecv, s, atOnce), WSA_IO_PENDING);
    AwaitWaiting(s, std::size(rest) + 1);
    EXPECT_EQ(ContextOf(s)->BytesRecv, 9u) << "what waits for its turn is no part of the report";
    OpenGate();
    EXPECT_EQ(NextTold(), &first);
    for (std::size_t i = 0; i < std::size(rest); ++i) {
        EXPECT_EQ(NextTold(), &rest[i]);
        EXPECT_EQ(rest[i].record.OffsetHigh, static_cast<DWORD>(errors[i]));
    }
    EXPECT_EQ(NextTold(), &atOnce);
    CloseLetGo(s);
}

TEST_P(ReceivedLooks, EndWithTheSocketOrTheManager) {
    for (const bool stops : {false, true}) {
        SCOPED_TRACE(stops);
        LookSlowly();
        Fake().waitsAbandoned = [this] { OpenGate(); };
        const SOCKET s = Open();
        Request looked;
        Request waiting;
        Request pending;
        StartEnded(s, looked);
        AwaitLooks(1);
        StartEnded(s, waiting);
        AwaitWaiting(s, 1);
        EXPECT_EQ(Start(OverlappedType::kRecv, s, pending), WSA_IO_PENDING);
        lower_->WaitFor(lower_->Count());
        if (stops) {
            lower_->EndAll(ContextOf(s)->ProviderSocket);
            EXPECT_TRUE(StopOverlappedManager());
        } else {
            Close(s);
        }
        for (Request* const request : {&looked, &waiting, &pending}) {
            EXPECT_EQ(NextTold(), request);
            EXPECT_EQ(request->record.OffsetHigh, static_cast<DWORD>(WSA_OPERATION_ABORTED));
            EXPECT_EQ(request->record.InternalHigh, 0u);
        }
        if (stops) {
            CloseLetGo(s);
        }
        ResetEvent(gate_);
        looking_ = 0;
    }
}

TEST_P(ReceivedLooks, WithoutAThreadForThemAreLeftOut) {
    Fake().received = [](SocketContext* context, const WSABUF*, const sockaddr*) { context->Blocked = TRUE; };
    const SOCKET s = Open();
    // A place to wait in is needed in every mode, and comes first.
    Request before;
    EXPECT_EQ(Start(OverlappedType::kTransmitFile, s, before), WSA_IO_PENDING);
    lower_->WaitFor(1);
    platform::ArmFault({"CreateThread", 1, platform::FaultKind::kError, 0, true});
    Request request;
    StartEnded(s, request);
    EXPECT_EQ(ErrorTold(request, true), 0u);
    EXPECT_EQ(request.record.InternalHigh, 9u) << "as when nobody can be asked";
    platform::DisarmFaults();
    lower_->End(0, 0, 0);
    EXPECT_EQ(ErrorTold(before, false), 0u);
    CloseLetGo(s);
}

}  // namespace
