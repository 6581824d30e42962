// Every type of overlapped request between fakes, in every mode of the layer: what comes down, what is
// counted, how often the application is told, and that nothing is held on to afterwards.
#include <mswsock.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <memory>
#include <thread>

#include "platform/kernel/fault_points.h"
#include "platform/testing/clock.h"
#include "provider/operations/extension_functions.h"
#include "provider/overlapped/caller_record.h"
#include "provider/overlapped/overlapped_completion.h"
#include "provider/overlapped/overlapped_manager.h"
#include "tests/provider/fake_winsock.h"
#include "tests/provider/lower_requests.h"
#include "tests/support/callback.h"

namespace {

/// Above the layer's port; without one; with lower sockets that are on somebody else's port.
enum class Mode { kCompletionPort, kAlertable, kForeignPort };

constexpr DWORD kPatience = 20000;

/// What is queued to the application's threads. Counts, so that a second telling shows.
struct QueuedRoutines {
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::pair<LPWSAUSERAPC, DWORD_PTR>> queued;
};
QueuedRoutines* Routines = nullptr;

/// A request of the application; its record comes first, so that a completion leads back to it.
struct Request {
    WSAOVERLAPPED record{};
    WSABUF buffer{};
    char bytes[16] = {};
    DWORD transferred = 0;
    DWORD flags = 0;
    sockaddr_in address = MakeAddress("198.51.100.8", 54);
    INT addressLength = sizeof(sockaddr_in);
    WSAMSG message{};
    int completions = 0;

    Request() {
        buffer = {sizeof(bytes), bytes};
        record.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        record.Offset = 70;
        record.OffsetHigh = 7;
    }
    ~Request() { CloseHandle(record.hEvent); }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;
};

void CALLBACK CountCompletion(DWORD error, DWORD, LPWSAOVERLAPPED overlapped, DWORD) {
    auto* const request = reinterpret_cast<Request*>(overlapped);
    ++request->completions;
    EXPECT_EQ(overlapped->OffsetHigh, error);
}

struct TypeRow {
    OverlappedType type;
    int socketType;
    bool hasRoutine;                                ///< the application can give one
    bool reportsBytes;                              ///< its call has a place for the count
    Atomic<std::uint64_t> SocketContext::*counter;  ///< that grows by the bytes
};

constexpr auto kSent = &SocketContext::BytesSent;
constexpr auto kReceived = &SocketContext::BytesRecv;
constexpr TypeRow kTypes[] = {
    {OverlappedType::kIoctl, SOCK_STREAM, true, true, nullptr},
    {OverlappedType::kRecv, SOCK_STREAM, true, true, kReceived},
    {OverlappedType::kRecvFrom, SOCK_DGRAM, true, true, kReceived},
    {OverlappedType::kSend, SOCK_STREAM, true, true, kSent},
    {OverlappedType::kSendTo, SOCK_DGRAM, true, true, kSent},
    {OverlappedType::kTransmitFile, SOCK_STREAM, false, false, kSent},
    {OverlappedType::kAcceptEx, SOCK_STREAM, false, true, kReceived},
    {OverlappedType::kConnectEx, SOCK_STREAM, false, true, kSent},
    {OverlappedType::kDisconnectEx, SOCK_STREAM, false, false, nullptr},
    {OverlappedType::kTransmitPackets, SOCK_STREAM, false, false, kSent},
    {OverlappedType::kWsaRecvMsg, SOCK_DGRAM, true, true, kReceived},
};

class OverlappedRequests : public FakeWinsock, public ::testing::WithParamInterface<Mode> {
  protected:
    void SetUp() override {
        FakeWinsock::SetUp();
        Routines = new QueuedRoutines;
        lower_ = std::make_unique<LowerRequests>();
        LowerRequests::ServeEntry(Entry(SOCK_STREAM));
        LowerRequests::ServeEntry(Entry(SOCK_DGRAM));
        UpcallTable.lpWPUOpenCurrentThread = Callback([](LPWSATHREADID thread, LPINT) {
            thread->ThreadHandle = GetCurrentThread();
            return 0;
        });
        UpcallTable.lpWPUCloseThread = Callback([](LPWSATHREADID, LPINT) { return 0; });
        UpcallTable.lpWPUQueueApc =
            Callback([](LPWSATHREADID, LPWSAUSERAPC procedure, DWORD_PTR context, LPINT) {
                const std::lock_guard<std::mutex> lock(Routines->mutex);
                Routines->queued.emplace_back(procedure, context);
                Routines->changed.notify_all();
                return 0;
            });
        if (GetParam() == Mode::kAlertable) platform::ArmFault({"CreateIoCompletionPort"});
        EXPECT_EQ(StartOverlappedManager(), 0);
        platform::DisarmFaults();
        foreignPort_ = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    }

    void TearDown() override {
        EXPECT_TRUE(StopOverlappedManager());
        FreeOverlappedRecords();
        DWORD bytes = 0;
        ULONG_PTR key = 0;
        LPOVERLAPPED overlapped = nullptr;
        EXPECT_FALSE(GetQueuedCompletionStatus(foreignPort_, &bytes, &key, &overlapped, 0))
            << "somebody else's port was told of a request of the layer's";
        CloseHandle(foreignPort_);
        EXPECT_TRUE(Routines->queued.empty()) << "told more often than it was waited for";
        delete Routines;
        lower_.reset();
        FakeWinsock::TearDown();
    }

    SOCKET Open(int type = SOCK_STREAM) {
        const SOCKET s = MakeSocket(type);
        if (GetParam() == Mode::kForeignPort) {
            const auto lower = reinterpret_cast<HANDLE>(SOCKET{ContextOf(s)->ProviderSocket});
            EXPECT_NE(CreateIoCompletionPort(lower, foreignPort_, 0, 0), nullptr);
        }
        return s;
    }

    /// Makes a request: 0, WSA_IO_PENDING or its error.
    int Start(OverlappedType type, SOCKET s, Request& r, SOCKET accepting = INVALID_SOCKET);

    /// Waits until the application has been told of a request's end. Its error.
    static DWORD Told(Request& request, bool hasRoutine) {
        if (!hasRoutine) {
            EXPECT_EQ(WaitForSingleObject(request.record.hEvent, kPatience), WAIT_OBJECT_0);
        } else {
            std::pair<LPWSAUSERAPC, DWORD_PTR> routine;
            {
                std::unique_lock<std::mutex> lock(Routines->mutex);
                EXPECT_TRUE(Routines->changed.wait_for(lock, std::chrono::milliseconds(kPatience),
                                                       [] { return !Routines->queued.empty(); }));
                if (Routines->queued.empty()) return WAIT_TIMEOUT;
                routine = Routines->queued.front();
                Routines->queued.pop_front();
            }
            routine.first(routine.second);
            EXPECT_EQ(request.completions, 1);
        }
        EXPECT_FALSE(IsOverlappedInProgress(&request.record));
        return request.record.OffsetHigh;
    }

    /// The end of a request that was made with `result`: reported by it, or told. Its error.
    static DWORD Ended(int result, Request& request, bool hasRoutine) {
        if (result == 0 || result == WSA_IO_PENDING) return Told(request, hasRoutine);
        EXPECT_FALSE(IsOverlappedInProgress(&request.record));
        return static_cast<DWORD>(result);
    }

    /// No lock and no request of a socket is held on to: another thread gets all of them, and a close ends
    /// it.
    static void CloseLetGo(SOCKET s) {
        SocketContext* const context = ContextOf(s);
        const HANDLE free = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        std::thread other([&] {
            for (bool outstanding = true; outstanding; std::this_thread::yield()) {
                const Locker global(qx::GlobalLock);
                AcquireSocketLock(context);
                const Locker manager(OverlappedLock);
                outstanding = context->OutstandingAsync != 0 || context->RefCount != 0;
                ReleaseSocketLock(context);
            }
            SetEvent(free);
        });
        if (WaitForSingleObject(free, kPatience) != WAIT_OBJECT_0) {
            std::fprintf(stderr, "a lock, a reference or a request of a socket is held on to\n");
            std::abort();
        }
        other.join();
        CloseHandle(free);
        Close(s);
        EXPECT_EQ(Fake().handles.count(s), 0u);
    }

    std::unique_ptr<LowerRequests> lower_;
    HANDLE foreignPort_ = nullptr;
};

int OverlappedRequests::Start(OverlappedType type, SOCKET s, Request& r, SOCKET accepting) {
    const auto address = reinterpret_cast<sockaddr*>(&r.address);
    const auto extension = [](BOOL done) { return done ? 0 : WSAGetLastError(); };
    const auto operation = [&](int result) { return ErrorOf(result == 0); };
    r.transferred = 99;
    switch (type) {
        case OverlappedType::kIoctl:
            return operation(WSPIoctl(s, FIONREAD, nullptr, 0, nullptr, 0, &r.transferred, &r.record,
                                      CountCompletion, nullptr, &error_));
        case OverlappedType::kRecv:
            return operation(WSPRecv(s, &r.buffer, 1, &r.transferred, &r.flags, &r.record, CountCompletion,
                                     nullptr, &error_));
        case OverlappedType::kRecvFrom:
            return operation(WSPRecvFrom(s, &r.buffer, 1, &r.transferred, &r.flags, address, &r.addressLength,
                                         &r.record, CountCompletion, nullptr, &error_));
        case OverlappedType::kSend:
            return operation(
                WSPSend(s, &r.buffer, 1, &r.transferred, 0, &r.record, CountCompletion, nullptr, &error_));
        case OverlappedType::kSendTo:
            return operation(WSPSendTo(s, &r.buffer, 1, &r.transferred, 0, address, sizeof(r.address),
                                       &r.record, CountCompletion, nullptr, &error_));
        case OverlappedType::kTransmitFile:
            return extension(LayerTransmitFile(s, nullptr, 0, 0, &r.record, nullptr, 0));
        case OverlappedType::kAcceptEx:
            return extension(LayerAcceptEx(s, accepting, r.bytes, 0, 0, 0, &r.transferred, &r.record));
        case OverlappedType::kConnectEx:
            return extension(
                LayerConnectEx(s, address, sizeof(r.address), r.bytes, 7, &r.transferred, &r.record));
        case OverlappedType::kDisconnectEx:
            return extension(LayerDisconnectEx(s, &r.record, 0, 0));
        case OverlappedType::kTransmitPackets:
            return extension(LayerTransmitPackets(s, nullptr, 0, 0, &r.record, 0));
        case OverlappedType::kWsaRecvMsg:
            return extension(LayerWSARecvMsg(s, &r.message, &r.transferred, &r.record, CountCompletion) == 0);
    }
    return -1;
}

std::string NameOf(Mode mode) {
    static const char* const names[] = {"CompletionPort", "Alertable", "ForeignPort"};
    return names[static_cast<int>(mode)];
}

INSTANTIATE_TEST_SUITE_P(Modes, OverlappedRequests,
                         ::testing::Values(Mode::kCompletionPort, Mode::kAlertable, Mode::kForeignPort),
                         [](const auto& mode) { return NameOf(mode.param); });

TEST_P(OverlappedRequests, EndLaterOrAtOnceCountedAndToldOnce) {
    for (const int answer : {int{WSA_IO_PENDING}, 0}) {
        lower_->Answer(answer);
        for (const TypeRow& row : kTypes) {
            SCOPED_TRACE(static_cast<DWORD>(row.type));
            SCOPED_TRACE(answer == 0 ? "at once" : "later");
            const SOCKET s = Open(row.socketType);
            const SOCKET accepting = Open();
            Request request;
            const std::size_t before = lower_->Count();
            const int result = Start(row.type, s, request, accepting);
            const bool atOnce = answer == 0 && GetParam() == Mode::kForeignPort;
            EXPECT_EQ(result, atOnce ? 0 : WSA_IO_PENDING);
            if (atOnce && row.reportsBytes) {
                EXPECT_EQ(request.transferred, LowerRequests::kBytesAtOnce);
            }
            const LowerRequest below = lower_->WaitFor(before + 1);
            EXPECT_EQ(below.type, row.type);
            EXPECT_EQ(below.socket, ContextOf(s)->ProviderSocket);
            EXPECT_EQ(below.offset, 70u) << "a file is sent from where the application wants";
            EXPECT_EQ(below.offsetHigh, 7u);
            DWORD bytes = LowerRequests::kBytesAtOnce;
            if (answer != 0) {
                EXPECT_TRUE(IsOverlappedInProgress(&request.record));
                bytes = 9;
                lower_->End(before, bytes, 0);
            }
            EXPECT_EQ(Told(request, row.hasRoutine), 0u);
            EXPECT_EQ(request.record.InternalHigh, bytes);
            const bool accepts = row.type == OverlappedType::kAcceptEx;
            const SOCKET counting = accepts ? accepting : s;
            if (accepts) {
                EXPECT_EQ(below.accepting, ContextOf(accepting)->ProviderSocket);
            }
            EXPECT_EQ(ContextOf(counting)->BytesSent, row.counter == kSent ? bytes : 0);
            EXPECT_EQ(ContextOf(counting)->BytesRecv, row.counter == kReceived ? bytes : 0);
            CloseLetGo(s);
            CloseLetGo(accepting);
        }
    }
}

TEST_P(OverlappedRequests, FailBelowAreReportedOnceAndCountNothing) {
    for (const int answer : {int{WSAENETDOWN}, kFailsWithoutError}) {
        lower_->Answer(answer);
        for (const TypeRow& row : kTypes) {
            SCOPED_TRACE(static_cast<DWORD>(row.type));
            const SOCKET s = Open(row.socketType);
            const SOCKET accepting = Open();
            Request request;
            WSASetLastError(WSA_IO_PENDING);  // left by an earlier call
            const int result = Start(row.type, s, request, accepting);
            EXPECT_EQ(result == WSA_IO_PENDING, GetParam() == Mode::kAlertable);
            EXPECT_EQ(Ended(result, request, row.hasRoutine),
                      static_cast<DWORD>(answer == kFailsWithoutError ? WSAEINVAL : WSAENETDOWN));
            EXPECT_EQ(ContextOf(s)->BytesSent + ContextOf(s)->BytesRecv + ContextOf(accepting)->BytesRecv,
                      0u);
            CloseLetGo(s);
            CloseLetGo(accepting);
        }
    }
}

TEST_P(OverlappedRequests, EndWithAnErrorThoughTheLowerProviderNamesNone) {
    const SOCKET s = Open();
    Request request;
    EXPECT_EQ(Start(OverlappedType::kTransmitFile, s, request), WSA_IO_PENDING);
    lower_->WaitFor(1);
    lower_->End(0, 9, kFailsWithoutError);
    EXPECT_EQ(Told(request, false), static_cast<DWORD>(WSAEINVAL));
    EXPECT_EQ(ContextOf(s)->BytesSent, 0u);
    CloseLetGo(s);
}

TEST_P(OverlappedRequests, BlockedAreReportedOnceAndSendNothing) {
    constexpr struct {
        OverlappedType type;
        int socketType;
        int blockError;
        DWORD expected;
    } kRows[] = {
        {OverlappedType::kSend, SOCK_STREAM, 0, WSAECONNABORTED},
        {OverlappedType::kSend, SOCK_STREAM, WSAETIMEDOUT, WSAETIMEDOUT},
        {OverlappedType::kSendTo, SOCK_DGRAM, 0, WSAECONNREFUSED},
        {OverlappedType::kRecv, SOCK_STREAM, WSAETIMEDOUT, WSAETIMEDOUT},
        {OverlappedType::kRecvFrom, SOCK_DGRAM, WSAETIMEDOUT, WSAETIMEDOUT},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(static_cast<DWORD>(row.type));
        const SOCKET s = Open(row.socketType);
        ContextOf(s)->Blocked = TRUE;
        ContextOf(s)->BlockError = row.blockError;
        Request request;
        EXPECT_EQ(Ended(Start(row.type, s, request), request, true), row.expected);
        CloseLetGo(s);
    }
    EXPECT_EQ(lower_->Count(), 0u);
}

TEST_P(OverlappedRequests, ReceivesFoundToBeBlockedEndWithTheBlocksError) {
    Fake().received = [](SocketContext* context) { context->Blocked = TRUE; };
    for (const int answer : {int{WSA_IO_PENDING}, 0, int{WSAENETDOWN}}) {
        lower_->Answer(answer);
        for (const TypeRow& row : kTypes) {
            if (row.type != OverlappedType::kRecv && row.type != OverlappedType::kRecvFrom) continue;
            SCOPED_TRACE(static_cast<DWORD>(row.type));
            const SOCKET s = Open(row.socketType);
            Request request;
            const std::size_t before = lower_->Count();
            const int result = Start(row.type, s, request);
            EXPECT_EQ(result, answer == WSAENETDOWN && GetParam() != Mode::kAlertable ? WSAECONNABORTED
                                                                                      : WSA_IO_PENDING);
            lower_->WaitFor(before + 1);
            lower_->End(before, 9, 0);
            EXPECT_EQ(Ended(result, request, true), static_cast<DWORD>(WSAECONNABORTED));
            EXPECT_EQ(ContextOf(s)->BytesRecv, 0u);
            CloseLetGo(s);
        }
    }
}

TEST_P(OverlappedRequests, AReceiveThatEndsWhileItIsAnalyzedCanStillBeBlocked) {
    // Elsewhere nothing tells of an end before the lower call has returned.
    if (GetParam() != Mode::kCompletionPort) return;
    for (const bool blocks : {true, false}) {
        const std::size_t before = lower_->Count();
        Fake().received = [this, blocks, before](SocketContext* context) {
            lower_->End(before, 9, 0);
            // As the worker does.
            CompleteOverlappedOperation(WSA_IO_PENDING, 9, lower_->WaitFor(before + 1).record, 0);
            context->Blocked = blocks;
        };
        const SOCKET s = Open(SOCK_DGRAM);
        ContextOf(s)->CompletionPort = foreignPort_;  // no packet comes
        Request request;
        EXPECT_EQ(Start(OverlappedType::kRecvFrom, s, request), WSA_IO_PENDING);
        EXPECT_EQ(Told(request, true), blocks ? DWORD{WSAECONNABORTED} : 0u);
        EXPECT_EQ(ContextOf(s)->BytesRecv, blocks ? 0u : 9u);
        CloseLetGo(s);
    }
}

TEST_P(OverlappedRequests, ExtensionCallsWithoutARecordGoDownAsTheyAre) {
    const SOCKET s = Open();
    const SOCKET accepting = Open();
    sockaddr_in address = MakeAddress("198.51.100.8", 54);
    const auto name = reinterpret_cast<sockaddr*>(&address);
    DWORD bytes = 0;
    WSAMSG message{};
    const auto callAll = [&](int error) {
        const auto reported = [](bool done) { return done ? 0 : WSAGetLastError(); };
        EXPECT_EQ(reported(LayerTransmitFile(s, nullptr, 0, 0, nullptr, nullptr, 0)), error);
        EXPECT_EQ(reported(LayerAcceptEx(s, accepting, nullptr, 0, 0, 0, &bytes, nullptr)), error);
        EXPECT_EQ(reported(LayerConnectEx(s, name, sizeof(address), nullptr, 0, &bytes, nullptr)), error);
        EXPECT_EQ(reported(LayerDisconnectEx(s, nullptr, 0, 0)), error);
        EXPECT_EQ(reported(LayerTransmitPackets(s, nullptr, 0, 0, nullptr, 0)), error);
        EXPECT_EQ(reported(LayerWSARecvMsg(s, &message, &bytes, nullptr, nullptr) == 0), error);
    };
    for (const int answer : {0, int{WSAENETDOWN}, kFailsWithoutError}) {
        lower_->Answer(answer);
        WSASetLastError(WSA_IO_PENDING);
        callAll(answer == kFailsWithoutError ? WSAEINVAL : answer);
    }
    for (std::size_t i = 1; i <= lower_->Count(); ++i) {
        const LowerRequest call = lower_->WaitFor(i);
        EXPECT_EQ(call.record, nullptr);
        EXPECT_EQ(call.socket, ContextOf(s)->ProviderSocket);
        if (call.type == OverlappedType::kAcceptEx) {
            EXPECT_EQ(call.accepting, ContextOf(accepting)->ProviderSocket);
        }
    }
    EXPECT_EQ(lower_->Count(), 18u);
    CloseLetGo(s);
    CloseLetGo(accepting);
}

TEST_P(OverlappedRequests, ADatagramsSourceBecomesTheDestination) {
    lower_->Answer(0);
    const SOCKET s = Open(SOCK_DGRAM);
    Request receive;
    const int result = Start(OverlappedType::kRecvFrom, s, receive);
    EXPECT_EQ(Ended(result, receive, true), 0u);
    EXPECT_EQ(ContextOf(s)->DestinationAddress.Port(), 53);
    EXPECT_EQ(ContextOf(s)->DestinationAddressLength, 16);
    Request send;
    EXPECT_EQ(Ended(Start(OverlappedType::kSendTo, s, send), send, true), 0u);
    EXPECT_EQ(ContextOf(s)->DestinationAddress.Port(), 54);
    CloseLetGo(s);
}

TEST_P(OverlappedRequests, ManyUnderWayHoldUpNoOther) {
    // More than one thread can wait for at once, twice.
    constexpr std::size_t kMany = 2 * MAXIMUM_WAIT_OBJECTS + 2;
    const SOCKET listener = Open();
    const SOCKET accepting = Open();
    std::deque<Request> requests(kMany);
    for (Request& request : requests)
        EXPECT_EQ(Start(OverlappedType::kAcceptEx, listener, request, accepting), WSA_IO_PENDING);
    lower_->WaitFor(kMany);
    const SOCKET s = Open();
    for (const OverlappedType type : {OverlappedType::kSend, OverlappedType::kTransmitFile}) {
        const std::size_t before = lower_->Count();
        Request other;
        ASSERT_EQ(Start(type, s, other), WSA_IO_PENDING);
        lower_->WaitFor(before + 1);
        lower_->End(before, 1, 0);
        EXPECT_EQ(Told(other, type == OverlappedType::kSend), 0u);
    }
    for (std::size_t i = kMany; i-- > 0;)
        lower_->End(i, 1, 0);
    for (Request& request : requests)
        EXPECT_EQ(Told(request, false), 0u);
    EXPECT_EQ(ContextOf(accepting)->BytesRecv, kMany);
    CloseLetGo(s);
    CloseLetGo(listener);
    CloseLetGo(accepting);
}

TEST_P(OverlappedRequests, ASocketThatIsBeingClosedTakesNone) {
    const SOCKET s = Open();
    ContextReference closing(s, &error_);
    closing->Closing = TRUE;
    for (const OverlappedType type : {OverlappedType::kSend, OverlappedType::kDisconnectEx}) {
        Request request;
        EXPECT_EQ(Start(type, s, request), WSAENOTSOCK);
        EXPECT_FALSE(IsOverlappedInProgress(&request.record));
    }
    EXPECT_EQ(lower_->Count(), 0u);
    closing->Closing = FALSE;
    closing.Release();
    CloseLetGo(s);
}

TEST_P(OverlappedRequests, TheLowerHandleIsToldOfALayeredProvidersSocket) {
    Entry(SOCK_STREAM).NextProvider.ProtocolChain.ChainLen = 2;
    const SOCKET s = Open();
    Request request;
    SOCKET lower = 0;
    EXPECT_EQ(
        ErrorOf(WSPIoctl(s, SIO_QUERY_TARGET_PNP_HANDLE, nullptr, 0, &lower, sizeof(lower),
                         &request.transferred, &request.record, CountCompletion, nullptr, &error_) == 0),
        0);
    EXPECT_EQ(lower, ContextOf(s)->ProviderSocket);
    EXPECT_EQ(request.transferred, sizeof(SOCKET));
    EXPECT_EQ(Told(request, true), 0u);
    EXPECT_EQ(request.record.InternalHigh, sizeof(SOCKET));
    EXPECT_EQ(lower_->Count(), 0u);
    CloseLetGo(s);
}

TEST_P(OverlappedRequests, WithoutAThreadOrEventToWaitForThemAreRefused) {
    // A completion port needs neither.
    if (GetParam() == Mode::kCompletionPort) return;
    const platform::Fault faults[] = {{"CreateThread", 1}, {"CreateEventA", 1}, {"CreateEventA", 2}};
    for (const platform::Fault& fault : faults) {
        SCOPED_TRACE(fault.function);
        const SOCKET s = Open();
        Request request;
        platform::ArmFault(fault);
        const int result = Start(OverlappedType::kTransmitFile, s, request);
        EXPECT_EQ(Ended(result, request, false), static_cast<DWORD>(WSAENOBUFS));
        EXPECT_EQ(platform::FaultsStruck(), 1);
        platform::DisarmFaults();
        CloseLetGo(s);
    }
    EXPECT_EQ(lower_->Count(), 0u);
}

TEST_P(OverlappedRequests, AreServedAfterAStartThatFailedInPartAndRefusedAfterOneThatFailed) {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    lower_->Answer(0);
    for (const int failing : {2, 1}) {
        EXPECT_TRUE(StopOverlappedManager());
        FreeOverlappedRecords();
        const bool alertable = GetParam() == Mode::kAlertable;
        if (alertable) platform::ArmFault({"CreateIoCompletionPort"});
        platform::ArmFault({"CreateThread", failing, platform::FaultKind::kError, 0, true});
        const bool whole = failing == 2 && (alertable || info.dwNumberOfProcessors == 1);
        EXPECT_EQ(StartOverlappedManager(), whole ? 0 : WSAEPROVIDERFAILEDINIT);
        platform::DisarmFaults();
        const SOCKET s = Open(SOCK_DGRAM);
        Request request;
        const int result = Start(OverlappedType::kSendTo, s, request);
        EXPECT_EQ(Ended(result, request, true), failing == 2 ? 0u : DWORD{WSANOTINITIALISED});
        CloseLetGo(s);
    }
}

TEST_P(OverlappedRequests, OnTheirWayDownWhileTheManagerStopsAreNotLost) {
    // Elsewhere a worker makes the lower call, or the port has what is under way.
    if (GetParam() != Mode::kForeignPort) return;
    const SOCKET s = Open();
    Request request;
    lower_->DuringNext([] { EXPECT_TRUE(StopOverlappedManager()); });
    const platform::ScopedClockRate fast(100);
    EXPECT_EQ(Start(OverlappedType::kTransmitFile, s, request), WSA_IO_PENDING);
    EXPECT_TRUE(IsOverlappedInProgress(&request.record)) << "cancelled, but not let go of";
    const LPWSAOVERLAPPED below = lower_->WaitFor(1).record;
    const HANDLE event = EventOf(below);
    Close(s);
    CloseHandle(event);
    CompleteOverlappedOperation(WSA_OPERATION_ABORTED, 0, below, 0);
    EXPECT_EQ(Told(request, false), static_cast<DWORD>(WSA_OPERATION_ABORTED));
}

TEST_P(OverlappedRequests, WhatTheLowerProviderHoldsOnToEndsTheStopNonetheless) {
    const SOCKET s = Open();
    Request request;
    EXPECT_EQ(Start(OverlappedType::kTransmitFile, s, request), WSA_IO_PENDING);
    const LPWSAOVERLAPPED below = lower_->WaitFor(1).record;
    {
        const platform::ScopedClockRate fast(100);
        EXPECT_TRUE(StopOverlappedManager());
    }
    EXPECT_TRUE(IsOverlappedInProgress(&request.record)) << "the lower provider may yet write to its record";
    Request late;
    EXPECT_EQ(Start(OverlappedType::kTransmitFile, s, late), WSANOTINITIALISED);
    const HANDLE event = EventOf(below);
    Close(s);
    if (event != nullptr) CloseHandle(event);
    CompleteOverlappedOperation(WSA_OPERATION_ABORTED, 0, below, 0);
}

}  // namespace
