// What the tests of overlapped requests between fakes share: requests of every type, in every mode of the
// layer, of an application that counts what it is told.
#pragma once

#include <mswsock.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <utility>

#include "platform/kernel/fault_points.h"
#include "provider/operations/extension_functions.h"
#include "provider/overlapped/caller_record.h"
#include "provider/overlapped/overlapped_manager.h"
#include "tests/provider/fake_winsock.h"
#include "tests/provider/lower_requests.h"
#include "tests/support/callback.h"

/// Above the layer's port; without one; with lower sockets that are on somebody else's port.
enum class RequestMode { kCompletionPort, kAlertable, kForeignPort };

inline const char* NameOf(RequestMode mode) {
    static const char* const names[] = {"CompletionPort", "Alertable", "ForeignPort"};
    return names[static_cast<int>(mode)];
}
inline void PrintTo(RequestMode mode, std::ostream* stream) {
    *stream << NameOf(mode);
}

constexpr DWORD kRequestPatience = 20000;

/// The layer's procedure, which runs a routine of the application's.
using QueuedRoutine = std::pair<LPWSAUSERAPC, DWORD_PTR>;

/// What is queued to the application's threads. Counts, so that a second telling shows.
struct QueuedRoutines {
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<QueuedRoutine> queued;
};
inline QueuedRoutines* Routines = nullptr;

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

inline void CALLBACK CountCompletion(DWORD error, DWORD, LPWSAOVERLAPPED overlapped, DWORD) {
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

class OverlappedRequests : public FakeWinsock, public ::testing::WithParamInterface<RequestMode> {
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
        if (GetParam() == RequestMode::kAlertable) platform::ArmFault({"CreateIoCompletionPort"});
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
        if (GetParam() == RequestMode::kForeignPort) {
            const auto lower = reinterpret_cast<HANDLE>(SOCKET{ContextOf(s)->ProviderSocket});
            EXPECT_NE(CreateIoCompletionPort(lower, foreignPort_, 0, 0), nullptr);
        }
        return s;
    }

    /// Makes a request: 0, WSA_IO_PENDING or its error.
    int Start(OverlappedType type, SOCKET s, Request& r, SOCKET accepting = INVALID_SOCKET);

    /// The next routine that is queued to the application; a null one when none comes.
    static QueuedRoutine TakeRoutine() {
        std::unique_lock<std::mutex> lock(Routines->mutex);
        EXPECT_TRUE(Routines->changed.wait_for(lock, std::chrono::milliseconds(kRequestPatience),
                                               [] { return !Routines->queued.empty(); }));
        if (Routines->queued.empty()) return {};
        const QueuedRoutine routine = Routines->queued.front();
        Routines->queued.pop_front();
        return routine;
    }

    /// Waits until the application has been told of a request's end. Its error.
    static DWORD ErrorTold(Request& request, bool hasRoutine) {
        if (!hasRoutine) {
            EXPECT_EQ(WaitForSingleObject(request.record.hEvent, kRequestPatience), WAIT_OBJECT_0);
        } else {
            const QueuedRoutine routine = TakeRoutine();
            if (routine.first == nullptr) return WAIT_TIMEOUT;
            routine.first(routine.second);
            EXPECT_EQ(request.completions, 1);
        }
        EXPECT_FALSE(IsOverlappedInProgress(&request.record));
        return request.record.OffsetHigh;
    }

    /// The end of a request that was made with `result`: reported by it, or told. Its error.
    static DWORD Ended(int result, Request& request, bool hasRoutine) {
        if (result == 0 || result == WSA_IO_PENDING) return ErrorTold(request, hasRoutine);
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
        if (WaitForSingleObject(free, kRequestPatience) != WAIT_OBJECT_0) {
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

inline int OverlappedRequests::Start(OverlappedType type, SOCKET s, Request& r, SOCKET accepting) {
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
