// Starting and stopping the workers; the way of a request from the application's call to its execution.
#include "provider/overlapped/overlapped_manager.h"

#include <guarded_call.h>

#include <cstring>
#include <utility>

#include "provider/catalog/catalog.h"
#include "provider/guarded_sockets.h"
#include "provider/overlapped/alertable_worker.h"
#include "provider/overlapped/event_waiter.h"
#include "provider/overlapped/look_threads.h"
#include "provider/overlapped/manager_handles.h"
#include "provider/overlapped/overlapped_completion.h"
#include "provider/overlapped/overlapped_execution.h"
#include "provider/overlapped/overlapped_records.h"
#include "provider/overlapped/port_worker.h"
#include "provider/overlapped/received_data.h"
#include "provider/overlapped/worker_thread.h"

Atomic<HANDLE> ManagerPort;
Atomic<HANDLE> ManagerSemaphore;

namespace {

constexpr DWORD kStopMilliseconds = 5000;
constexpr DWORD kMostWorkers = MAXIMUM_WAIT_OBJECTS;
constexpr int kStartFailure = WSAEPROVIDERFAILEDINIT;

WorkerThread* Workers QX_GUARDED_BY(OverlappedLock) = nullptr;
DWORD WorkerCount QX_GUARDED_BY(OverlappedLock) = 0;

bool StartWorker(const ThreadStarter& starter) QX_REQUIRES(OverlappedLock) {
    const HANDLE port = ManagerPort;
    const LPTHREAD_START_ROUTINE procedure = port != nullptr ? PortWorker : AlertableWorker;
    const HANDLE argument = port != nullptr ? port : static_cast<HANDLE>(ManagerSemaphore);
    if (!starter.Start(procedure, argument, &Workers[WorkerCount])) return false;
    ++WorkerCount;
    return true;
}

/// Without a worker nothing would ever end: requests are refused instead.
void GiveUpStart() QX_REQUIRES(OverlappedLock) {
    SafeCloseHandle(ManagerPort.Exchange(nullptr));
    SafeCloseHandle(ManagerSemaphore.Exchange(nullptr));
    if (Workers != nullptr) HeapFree(PrivateHeap, 0, Workers);
    Workers = nullptr;
}

DWORD CountProcessors() {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    return info.dwNumberOfProcessors < kMostWorkers ? info.dwNumberOfProcessors : kMostWorkers;
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

/// Room for a copy of the application's array; null without memory.
LPWSABUF RoomForBuffers(OverlappedOperation* operation, DWORD count) {
    TransferArguments& transfer = operation->Transfer;
    if (count <= TransferArguments::kFewBuffers) return transfer.FewBuffers;
    if (count > 0x00FFFFFF) return nullptr;
    auto* const room = static_cast<LPWSABUF>(HeapAlloc(operation->Lifetime->Heap, 0, count * sizeof(WSABUF)));
    operation->OwnsBuffers = room != nullptr;
    return room;
}

/// Keeps the application's buffers. The array may be gone when its call has returned: the alertable worker
/// comes later, and what a receive brings is looked at when it has ended. Only a send above a port uses it as
/// it is.
INT SetBuffers(OverlappedOperation* operation, const CallerBuffers& buffers) {
    const DWORD count = buffers.Count;
    if (buffers.Array == nullptr || count == 0) return 0;
    operation->Transfer.BufferCount = count;
    operation->Transfer.Buffers = buffers.Array;
    if (ManagerPort != nullptr && !IsReceive(operation->Operation)) return 0;
    const LPWSABUF copy = RoomForBuffers(operation, count);
    if (copy == nullptr) return WSAENOBUFS;
    operation->Transfer.Buffers = copy;
    return GuardedCall([&]() noexcept { std::memcpy(copy, buffers.Array, count * sizeof(WSABUF)); })
               ? 0
               : WSAEFAULT;
}

/// Takes back a record that was not queued.
void UndoPrepare(OverlappedOperation* operation, SocketContext* context) {
    INT ignored = 0;
    if (operation->CloseThread) UpcallTable.lpWPUCloseThread(&operation->CallerThreadId, &ignored);
    UncountRequest(context);
    ReleaseOverlappedRecord(operation);
}

Outcome Fail(OverlappedOperation* operation, SocketContext* context, INT error) {
    FailOverlappedOperation(operation, context, error);
    return {0, 0, error};
}

}  // namespace

int StartOverlappedManager() {
    const ThreadStarter starter;
    const Locker lock(OverlappedLock);
    if (Workers != nullptr) return 0;
    ForgetFreeRecords();
    DWORD wanted = 1;
    ManagerPort = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    if (ManagerPort != nullptr) {
        wanted = CountProcessors();
    } else {
        ManagerSemaphore = CreateSemaphoreA(nullptr, 0, 0x7FFFFFFF, nullptr);
        if (ManagerSemaphore == nullptr) return kStartFailure;
    }
    Workers =
        static_cast<WorkerThread*>(HeapAlloc(PrivateHeap, HEAP_ZERO_MEMORY, wanted * sizeof(WorkerThread)));
    WorkerCount = 0;
    while (Workers != nullptr && WorkerCount < wanted && StartWorker(starter)) {
    }
    if (WorkerCount == 0) GiveUpStart();
    return WorkerCount == wanted ? 0 : kStartFailure;
}

bool StopOverlappedManager() {
    WorkerThread* workers;
    DWORD count;
    HANDLE port;
    HANDLE semaphore;
    {
        const Locker lock(OverlappedLock);
        workers = Workers;
        count = WorkerCount;
        port = ManagerPort.Exchange(nullptr);
        semaphore = ManagerSemaphore.Exchange(nullptr);
        Workers = nullptr;
        WorkerCount = 0;
    }
    // After that, so that no request comes down unseen between the two.
    CancelOverlappedRecords();
    InterruptLooks();
    // Outside the lock: the workers take it, and others, until they end. Losing their port ends them too,
    // though with whatever is still queued in it.
    if (port != nullptr && !PostStopPackets(port, count)) SafeCloseHandle(std::exchange(port, nullptr));
    if (semaphore != nullptr) ReleaseSemaphore(semaphore, 1, nullptr);
    EventWaiter* const waiters = TellEventWaitersToEnd();
    const StopDeadline deadline(kStopMilliseconds);
    bool ended = AwaitEventWaiters(waiters, deadline);
    for (DWORD i = 0; i < count; ++i)
        ended = deadline.Await(&workers[i]) && ended;
    if (workers != nullptr) HeapFree(PrivateHeap, 0, workers);
    // Behind the others, which leave ends to them.
    ended = EndLookThreads(deadline) && ended;
    while (OverlappedOperation* const operation = TakePendingRecord()) {
        CompleteOverlappedOperation(WSA_OPERATION_ABORTED, 0, &operation->ProviderOverlapped, 0);
    }
    SafeCloseHandle(port);
    SafeCloseHandle(semaphore);
    return ended;
}

OverlappedOperation* PrepareOverlappedOperation(SocketContext* context, OverlappedType type,
                                                const CallerNotice& notice, const CallerBuffers& buffers,
                                                LPINT error) {
    OverlappedOperation* const operation = TakeOverlappedRecord(context, error);
    if (operation == nullptr) return nullptr;
    operation->Provider = context->Provider;
    operation->SocketContext = context;
    operation->CallerSocket = context->LayeredSocket;
    operation->ProviderSocket = context->ProviderSocket;
    operation->Operation = type;
    operation->CallerOverlapped = notice.Overlapped;
    operation->CallerCompletionRoutine = notice.Routine;
    INT failure = SetCallerThread(operation, notice.Thread);
    if (failure == 0) failure = SetBuffers(operation, buffers);
    if (failure == 0)
        failure =
            MarkInProgress(notice.Overlapped, notice.Routine != nullptr, &operation->ProviderOverlapped);
    if (failure == 0) return operation;
    UndoPrepare(operation, context);
    *error = failure;
    return nullptr;
}

Outcome QueueOverlappedOperation(OverlappedOperation* operation, SocketContext* context) {
    const HANDLE semaphore = ManagerSemaphore;
    if (semaphore != nullptr) {
        // Here, since the worker waits for no analyzer.
        const int refusal = JudgeOverlapped(operation, context);
        if (refusal != 0) return Fail(operation, context, refusal);
        QueueForAlertableWorker(operation, semaphore);
        return {0, 0, WSA_IO_PENDING};
    }
    // Read once: without a port the association would make one that nobody waits for.
    const HANDLE port = ManagerPort;
    if (port == nullptr) return Fail(operation, context, WSANOTINITIALISED);
    const Association association = AssociateLowerSocket(operation, context, port);
    switch (association) {
        case Association::kClosing:
            return Fail(operation, context, WSAENOTSOCK);
        case Association::kFailed:
            return Fail(operation, context, WSAEFAULT);
        case Association::kImpossible: {
            const Outcome outcome = ExecuteByEvent(operation, context);
            const bool taken = outcome.Error == 0 || outcome.Error == WSA_IO_PENDING;
            return taken ? outcome : Fail(operation, context, outcome.Error);
        }
        case Association::kMade:
        case Association::kMadeForLaterEnds:
            break;
    }
    return {0, 0, ExecuteAbovePort(operation, context, association == Association::kMadeForLaterEnds)};
}
