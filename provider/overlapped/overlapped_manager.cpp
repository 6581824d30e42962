// The overlapped manager's two ways of learning that a lower request has ended. With a completion port, the
// lower call is made on the application's thread and one worker per processor takes the completions. Without
// one (it could not be created), a single worker makes the lower calls itself, so that their completion
// routines run on it while it waits alertably; the extension functions, which take no routine, signal an
// event that it waits for too.
#include "provider/overlapped/overlapped_manager.h"

#include <winsock2.h>

#include <guarded_call.h>

#include <cstring>
#include <utility>

#include "provider/catalog/catalog.h"
#include "provider/catalog/lower_call.h"
#include "provider/guarded_sockets.h"
#include "provider/overlapped/overlapped_execution.h"
#include "provider/overlapped/overlapped_records.h"

namespace {

constexpr DWORD kStopPacket = 0xFFFFFFFF;
constexpr DWORD kStopMilliseconds = 5000;
constexpr DWORD kLastRoutinesMilliseconds = 20;
constexpr DWORD kCancelMilliseconds = 1000;
constexpr DWORD kMostWorkers = MAXIMUM_WAIT_OBJECTS;
constexpr int kStartFailure = WSAEPROVIDERFAILEDINIT;

// Written by start and stop under OverlappedLock; read by operations and workers without. Both null: the
// manager has stopped.
Atomic<HANDLE> Port;
Atomic<HANDLE> Semaphore;
HANDLE* Workers QX_GUARDED_BY(OverlappedLock) = nullptr;
DWORD WorkerCount QX_GUARDED_BY(OverlappedLock) = 0;

HANDLE EventOf(const WSAOVERLAPPED* overlapped) {
    // The lowest bit only says that a completion port is not to be told.
    return reinterpret_cast<HANDLE>(reinterpret_cast<ULONG_PTR>(overlapped->hEvent) & ~ULONG_PTR{1});
}

LONG NumberAfter(LONG number) {
    return static_cast<LONG>(static_cast<ULONG>(number) + 1);
}

/// Whether the system itself ends the lower provider's requests: it writes to the record before it queues the
/// packet. A layered provider, or one whose sockets are no handles of the system, may leave the record alone.
bool SystemEndsRequests(const LspEntry* provider) {
    return !provider->LowerIsLayered() && (provider->NextProvider.dwServiceFlags1 & XP1_IFS_HANDLES) != 0;
}

/// Lets a record be completed once, by its packet or by the thread that made the lower call. The number to
/// claim its end with.
LONG AwaitEnd(OverlappedOperation* operation) {
    // Also where packets are not skipped: the record's last request may have been another socket's, whose
    // packet came nevertheless.
    if (SystemEndsRequests(operation->Provider))
        PublishWord(&operation->ProviderOverlapped.Internal, kOperationInProgress);
    const LONG end = NumberAfter(operation->AwaitedEnd) | 1;
    operation->AwaitedEnd.Publish(end);
    return end;
}

/// True for one caller: it completes the request.
bool ClaimEnd(OverlappedOperation* operation, LONG end) {
    return operation->AwaitedEnd.StoreIfStill(end, NumberAfter(end));
}

/// Whether the worker that has the packet is to complete the request. Not every system keeps its promise to
/// queue no packet for what ended inside the call, or failed there: one that comes nevertheless finds its
/// record free, or under way again for another request.
bool ClaimEndByPacket(LPWSAOVERLAPPED overlapped) {
    OverlappedOperation* const operation = OperationOf(overlapped);
    // In this order: a request that this end belongs to was marked as in progress before.
    const LONG end = operation->AwaitedEnd.Acquire();
    return (end & 1) != 0 && !IsOverlappedInProgress(overlapped) && ClaimEnd(operation, end);
}

DWORD WINAPI PortWorker(LPVOID argument) {
    const HANDLE port = argument;
    for (;;) {
        DWORD bytes = 0;
        ULONG_PTR key = 0;
        LPOVERLAPPED overlapped = nullptr;
        const BOOL succeeded = GetQueuedCompletionStatus(port, &bytes, &key, &overlapped, INFINITE);
        if (overlapped == nullptr) {
            // The stop packet, or a port that can't be waited for any more.
            if (!succeeded || bytes == kStopPacket) return 0;
            continue;
        }
        // The completion asks the lower provider for the real result.
        if (ClaimEndByPacket(overlapped)) CompleteOverlappedOperation(WSA_IO_PENDING, bytes, overlapped, 0);
    }
}

/// What the alertable worker waits for beside the semaphore: one event for each lower request that has no
/// completion routine. Only the worker's thread uses it.
class EventRequests {
  public:
    bool IsFull() const { return count_ == kMost; }
    DWORD Count() const { return count_; }
    const HANDLE* Events() const { return events_; }

    void Add(OverlappedOperation* operation) {
        events_[count_] = EventOf(&operation->ProviderOverlapped);
        operations_[count_++] = operation;
    }

    OverlappedOperation* Remove(DWORD index) {
        OverlappedOperation* const operation = operations_[index];
        --count_;
        operations_[index] = operations_[count_];
        events_[index] = events_[count_];
        return operation;
    }

  private:
    static constexpr DWORD kMost = MAXIMUM_WAIT_OBJECTS - 1;
    HANDLE events_[kMost];
    OverlappedOperation* operations_[kMost];
    DWORD count_ = 0;
};

/// Ends a request of the alertable worker; the event that was made for it goes with it.
void CompleteFromWorker(OverlappedOperation* operation, INT error) {
    SafeCloseHandle(EventOf(&operation->ProviderOverlapped));
    operation->ProviderOverlapped.hEvent = nullptr;
    CompleteOverlappedOperation(static_cast<DWORD>(error), 0, &operation->ProviderOverlapped, 0);
}

void ExecuteOnWorker(OverlappedOperation* operation, LPWSATHREADID thread, EventRequests* requests) {
    const bool byRoutine = TakesCompletionRoutine(operation->Operation);
    if (!byRoutine) {
        operation->ProviderOverlapped.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        if (operation->ProviderOverlapped.hEvent == nullptr) {
            CompleteFromWorker(operation, WSAENOBUFS);
            return;
        }
    }
    CompletionNotice notice;
    if (byRoutine) notice = {CompleteOverlappedOperation, thread};
    INT error = WSA_OPERATION_ABORTED;
    {
        INT ignored = 0;
        const ContextReference context(operation->CallerSocket, &ignored);
        // A request that its socket's close, or the last clean-up, has overtaken ends like one that was under
        // way.
        const bool wanted =
            context && context.Get() == operation->SocketContext && !context->Closing && Semaphore != nullptr;
        if (wanted) error = CallLowerOverlapped(operation, context.Get(), notice);
    }
    // Nobody is left to be told by a result: a refused request is reported like any other.
    if (error != 0 && error != WSA_IO_PENDING) {
        CompleteFromWorker(operation, error);
    } else if (!byRoutine) {
        requests->Add(operation);
    }
}

/// Ends what a cancel has ended. What the lower provider still holds on to after that keeps its record, and
/// with it heap and library: it may yet write into them.
void CompleteCancelled(EventRequests* requests) {
    DWORD patience = kCancelMilliseconds;
    while (requests->Count() > 0) {
        OverlappedOperation* const operation = requests->Remove(0);
        if (WaitForSingleObject(EventOf(&operation->ProviderOverlapped), patience) == WAIT_TIMEOUT) {
            patience = 0;
        } else {
            CompleteFromWorker(operation, WSA_IO_PENDING);
        }
    }
}

DWORD WINAPI AlertableWorker(LPVOID argument) {
    const HANDLE semaphore = argument;
    INT error = 0;
    WSATHREADID thread = {};
    const bool hasThread = UpcallTable.lpWPUOpenCurrentThread(&thread, &error) != SOCKET_ERROR;
    EventRequests requests;
    while (Semaphore == semaphore) {
        HANDLE objects[MAXIMUM_WAIT_OBJECTS];
        DWORD count = 0;
        for (; count < requests.Count(); ++count)
            objects[count] = requests.Events()[count];
        // With no room for another event, new requests wait until one has ended.
        if (!requests.IsFull()) objects[count++] = semaphore;
        const DWORD result = WaitForMultipleObjectsEx(count, objects, FALSE, INFINITE, TRUE);
        if (result == WAIT_IO_COMPLETION) continue;
        const DWORD index = result - WAIT_OBJECT_0;
        if (index >= count) break;
        if (index < requests.Count()) {
            CompleteFromWorker(requests.Remove(index), WSA_IO_PENDING);
        } else if (OverlappedOperation* const operation = TakePendingRecord()) {
            ExecuteOnWorker(operation, hasThread ? &thread : nullptr, &requests);
        }
    }
    // What was handed down in the last moment is cancelled too; the ends of all of it come to this thread.
    // Not the requests of a next manager, if a lower provider has kept this thread for so long.
    if (Port == nullptr && Semaphore == nullptr) CancelOverlappedRecords();
    CompleteCancelled(&requests);
    while (SleepEx(kLastRoutinesMilliseconds, TRUE) == WAIT_IO_COMPLETION) {
    }
    if (hasThread) UpcallTable.lpWPUCloseThread(&thread, &error);
    return 0;
}

bool StartWorker() QX_REQUIRES(OverlappedLock) {
    const HANDLE port = Port;
    const LPTHREAD_START_ROUTINE procedure = port != nullptr ? PortWorker : AlertableWorker;
    const HANDLE argument = port != nullptr ? port : static_cast<HANDLE>(Semaphore);
    const HANDLE worker = CreateThread(nullptr, 0, procedure, argument, 0, nullptr);
    if (worker == nullptr) return false;
    Workers[WorkerCount++] = worker;
    return true;
}

/// One packet for each worker. Memory for a packet may be short for a moment only. False when one could not
/// be posted.
bool PostStopPackets(HANDLE port, DWORD count) {
    constexpr DWORD kMostTries = 5;
    constexpr DWORD kPauseMilliseconds = 10;
    DWORD posted = 0;
    for (DWORD tries = 0; tries < kMostTries; ++tries) {
        if (tries > 0) Sleep(kPauseMilliseconds);
        while (posted < count && PostQueuedCompletionStatus(port, kStopPacket, 0, nullptr))
            ++posted;
        if (posted == count) return true;
    }
    return false;
}

/// False when a worker has not ended in time: unloading under it is the worst that could happen. Not
/// alertable, since GlobalLock or the loader's lock may be held, under which no routine of the application
/// may run.
bool WaitForWorkers(const HANDLE* workers, DWORD count) {
    if (count == 0) return true;
    const DWORD result = WaitForMultipleObjectsEx(count, workers, TRUE, kStopMilliseconds, FALSE);
    if (result != WAIT_FAILED) return result != WAIT_TIMEOUT;
    bool ended = true;
    for (DWORD i = 0; i < count; ++i) {
        ended = WaitForSingleObject(workers[i], kStopMilliseconds) == WAIT_OBJECT_0 && ended;
    }
    return ended;
}

/// Without a worker nothing would ever end: requests are refused instead.
void GiveUpStart() QX_REQUIRES(OverlappedLock) {
    SafeCloseHandle(Port.Exchange(nullptr));
    SafeCloseHandle(Semaphore.Exchange(nullptr));
    if (Workers != nullptr) HeapFree(PrivateHeap, 0, Workers);
    Workers = nullptr;
}

DWORD CountProcessors() {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    return info.dwNumberOfProcessors < kMostWorkers ? info.dwNumberOfProcessors : kMostWorkers;
}

/// The application's record, marked as under way, and its event, which the application waits for.
INT MarkInProgress(LPWSAOVERLAPPED overlapped, bool hasRoutine) {
    INT error = 0;
    const bool readable = GuardedCall([&]() noexcept {
        // With a completion routine the event is the application's own to use.
        const HANDLE event = hasRoutine ? nullptr : EventOf(overlapped);
        if (event != nullptr && !ResetEvent(event)) {
            error = WSA_INVALID_HANDLE;
            return;
        }
        overlapped->InternalHigh = 0;
        PublishWord(&overlapped->Internal, kOperationInProgress);
    });
    return readable ? error : WSAEFAULT;
}

/// The thread that the application's routine is to run on. One that Winsock names goes down with the request,
/// whether there is a routine or not; only a routine is worth opening one for.
INT SetCallerThread(OverlappedOperation* operation, LPWSATHREADID threadId) {
    if (threadId != nullptr) {
        return GuardedCall([&]() noexcept { operation->CallerThreadId = *threadId; }) ? 0 : WSAEFAULT;
    }
    if (operation->CallerCompletionRoutine == nullptr) return 0;
    INT error = 0;
    if (UpcallTable.lpWPUOpenCurrentThread(&operation->CallerThreadId, &error) == SOCKET_ERROR) return error;
    operation->CloseThread = TRUE;
    return 0;
}

/// Keeps the application's buffers: with a completion port the lower call is made before the application's
/// call returns, so its array is used as it is; the alertable worker comes later and needs a copy.
INT SetBuffers(OverlappedOperation* operation, LPWSABUF buffers, DWORD count) {
    if (buffers == nullptr || count == 0) return 0;
    operation->Transfer.BufferCount = count;
    if (Port != nullptr) {
        operation->Transfer.Buffers = buffers;
        return 0;
    }
    if (count > 0x00FFFFFF) return WSAENOBUFS;
    const HANDLE heap = operation->Lifetime->Heap;
    auto* const copy = static_cast<LPWSABUF>(HeapAlloc(heap, 0, count * sizeof(WSABUF)));
    if (copy == nullptr) return WSAENOBUFS;
    operation->Transfer.Buffers = copy;
    operation->OwnsBuffers = TRUE;
    return GuardedCall([&]() noexcept { std::memcpy(copy, buffers, count * sizeof(WSABUF)); }) ? 0
                                                                                               : WSAEFAULT;
}

/// Takes back a record that was not queued.
void UndoPrepare(OverlappedOperation* operation, SocketContext* context) {
    INT ignored = 0;
    if (operation->CloseThread) UpcallTable.lpWPUCloseThread(&operation->CallerThreadId, &ignored);
    if (AcquireSocketLock(context)) {
        --context->OutstandingAsync;
        ReleaseSocketLock(context);
    }
    ReleaseOverlappedRecord(operation);
}

enum class Association { kMade, kMadeForLaterEnds, kImpossible, kFailed };

/// Lets a request that succeeds inside its lower call be reported from there, without the detour by a worker.
/// True when it queues no packet any more. Layered sockets are completed through Winsock, which queues one
/// always; datagram sockets of older systems mix both.
bool SkipPacketsOfSuccess(const SocketContext* context) {
    const LspEntry* const provider = context->Provider;
    return provider->NextProvider.iSocketType == SOCK_STREAM && SystemEndsRequests(provider) &&
           SetFileCompletionNotificationModes(reinterpret_cast<HANDLE>(SOCKET{context->ProviderSocket}),
                                              FILE_SKIP_COMPLETION_PORT_ON_SUCCESS);
}

/// Associates the lower socket with the layer's port on its first overlapped request.
Association AssociateLowerSocket(OverlappedOperation* operation, SocketContext* context) {
    // Read once: without a port the call below would make one that nobody waits for.
    const HANDLE port = Port;
    if (port == nullptr || !AcquireSocketLock(context)) return Association::kFailed;
    Association association = Association::kMade;
    if (context->Closing) {
        // The value may be another socket's by now. One that is not closing stays open while its lock is
        // held.
        association = Association::kFailed;
    } else if (context->CompletionPort == nullptr) {
        context->CompletionPort = CreateIoCompletionPort(reinterpret_cast<HANDLE>(operation->ProviderSocket),
                                                         port, operation->CallerSocket, 0);
        if (context->CompletionPort == nullptr) {
            association =
                GetLastError() == ERROR_INVALID_PARAMETER ? Association::kImpossible : Association::kFailed;
        } else {
            context->SkipsPackets = SkipPacketsOfSuccess(context);
        }
    }
    if (association == Association::kMade && context->SkipsPackets)
        association = Association::kMadeForLaterEnds;
    ReleaseSocketLock(context);
    return association;
}

/// Without a routine: the port, or the event, is told.
CompletionNotice NoticeToPort(OverlappedOperation* operation) {
    const bool hasThread = operation->CallerThreadId.ThreadHandle != nullptr;
    return {nullptr, hasThread ? &operation->CallerThreadId : nullptr};
}

/// Runs a request to its end inside the call, for a lower socket that is associated with somebody else's
/// port: its event's low bit keeps the completion from that port, and the application is told as of any other
/// request.
int ExecuteSynchronously(OverlappedOperation* operation, SocketContext* context) {
    const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    if (event == nullptr) {
        FailOverlappedOperation(operation, context, WSAENOBUFS);
        return WSAENOBUFS;
    }
    operation->ProviderOverlapped.hEvent =
        reinterpret_cast<HANDLE>(reinterpret_cast<ULONG_PTR>(event) | ULONG_PTR{1});
    const int result = CallLowerOverlapped(operation, context, NoticeToPort(operation));
    if (result == 0 || result == WSA_IO_PENDING) {
        // The lower provider signals it at the end of every request that it took, also when the socket is
        // closed.
        WaitForSingleObject(event, INFINITE);
        CompleteOverlappedOperation(WSA_IO_PENDING, 0, &operation->ProviderOverlapped, 0);
    } else {
        FailOverlappedOperation(operation, context, result);
    }
    SafeCloseHandle(event);
    return result;
}

/// Makes the lower call; the completion arrives through the port, unless the request ends here.
int ExecuteAbovePort(OverlappedOperation* operation, SocketContext* context, bool skipsPackets) {
    const LONG end = AwaitEnd(operation);
    const RecordHold hold(operation);
    const int result = CallLowerOverlapped(operation, context, NoticeToPort(operation));
    if (result == WSA_IO_PENDING || (result == 0 && !skipsPackets)) return WSA_IO_PENDING;
    if (!ClaimEnd(operation, end)) return WSA_IO_PENDING;
    if (result == 0) {
        CompleteOverlappedOperation(WSA_IO_PENDING, 0, &operation->ProviderOverlapped, 0);
        return WSA_IO_PENDING;
    }
    FailOverlappedOperation(operation, context, result);
    return result;
}

}  // namespace

int StartOverlappedManager() {
    const Locker lock(OverlappedLock);
    if (Workers != nullptr) return 0;
    ForgetFreeRecords();
    DWORD wanted = 1;
    Port = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    if (Port != nullptr) {
        wanted = CountProcessors();
    } else {
        Semaphore = CreateSemaphoreA(nullptr, 0, 0x7FFFFFFF, nullptr);
        if (Semaphore == nullptr) return kStartFailure;
    }
    Workers = static_cast<HANDLE*>(HeapAlloc(PrivateHeap, HEAP_ZERO_MEMORY, wanted * sizeof(HANDLE)));
    WorkerCount = 0;
    while (Workers != nullptr && WorkerCount < wanted && StartWorker()) {
    }
    if (WorkerCount == 0) GiveUpStart();
    return WorkerCount == wanted ? 0 : kStartFailure;
}

bool StopOverlappedManager() {
    HANDLE* workers;
    DWORD count;
    HANDLE port;
    HANDLE semaphore;
    {
        const Locker lock(OverlappedLock);
        workers = Workers;
        count = WorkerCount;
        port = Port.Exchange(nullptr);
        semaphore = Semaphore.Exchange(nullptr);
        Workers = nullptr;
        WorkerCount = 0;
    }
    // After that, so that no request comes down unseen between the two.
    CancelOverlappedRecords();
    // Outside the lock: the workers take it, and others, until they end. Losing their port ends them too,
    // though with whatever is still queued in it.
    if (port != nullptr && !PostStopPackets(port, count)) SafeCloseHandle(std::exchange(port, nullptr));
    if (semaphore != nullptr) ReleaseSemaphore(semaphore, 1, nullptr);
    const bool ended = WaitForWorkers(workers, count);
    for (DWORD i = 0; i < count; ++i)
        SafeCloseHandle(workers[i]);
    if (workers != nullptr) HeapFree(PrivateHeap, 0, workers);
    while (OverlappedOperation* const operation = TakePendingRecord()) {
        CompleteOverlappedOperation(WSA_OPERATION_ABORTED, 0, &operation->ProviderOverlapped, 0);
    }
    SafeCloseHandle(port);
    SafeCloseHandle(semaphore);
    return ended;
}

OverlappedOperation* PrepareOverlappedOperation(SocketContext* context, OverlappedType type, LPWSABUF buffers,
                                                DWORD count, LPWSAOVERLAPPED overlapped,
                                                LPWSAOVERLAPPED_COMPLETION_ROUTINE completionRoutine,
                                                LPWSATHREADID threadId, LPINT error) {
    OverlappedOperation* const operation = TakeOverlappedRecord(context);
    if (operation == nullptr) {
        *error = WSAENOBUFS;
        return nullptr;
    }
    operation->Provider = context->Provider;
    operation->SocketContext = context;
    operation->CallerSocket = context->LayeredSocket;
    operation->ProviderSocket = context->ProviderSocket;
    operation->Operation = type;
    operation->CallerOverlapped = overlapped;
    operation->CallerCompletionRoutine = completionRoutine;
    INT failure = SetCallerThread(operation, threadId);
    if (failure == 0) failure = SetBuffers(operation, buffers, count);
    if (failure == 0) failure = MarkInProgress(overlapped, completionRoutine != nullptr);
    if (failure == 0) return operation;
    UndoPrepare(operation, context);
    *error = failure;
    return nullptr;
}

int QueueOverlappedOperation(OverlappedOperation* operation, SocketContext* context) {
    const HANDLE semaphore = Semaphore;
    if (semaphore != nullptr) {
        AppendPendingRecord(operation);
        ReleaseSemaphore(semaphore, 1, nullptr);
        return WSA_IO_PENDING;
    }
    if (Port == nullptr) {
        FailOverlappedOperation(operation, context, WSANOTINITIALISED);
        return WSANOTINITIALISED;
    }
    const Association association = AssociateLowerSocket(operation, context);
    if (association == Association::kFailed) {
        FailOverlappedOperation(operation, context, WSAEFAULT);
        return WSAEFAULT;
    }
    if (association == Association::kImpossible) return ExecuteSynchronously(operation, context);
    return ExecuteAbovePort(operation, context, association == Association::kMadeForLaterEnds);
}
