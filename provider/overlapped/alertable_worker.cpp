// One thread that hands requests down, runs their completion routines and waits for the events of those that
// have none.
#include "provider/overlapped/alertable_worker.h"

#include "provider/guarded_sockets.h"
#include "provider/overlapped/caller_record.h"
#include "provider/overlapped/manager_handles.h"
#include "provider/overlapped/overlapped_completion.h"
#include "provider/overlapped/overlapped_execution.h"
#include "provider/overlapped/overlapped_records.h"

namespace {

constexpr DWORD kLastRoutinesMilliseconds = 20;
constexpr DWORD kCancelMilliseconds = 1000;

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
    const bool byRoutine = RowOf(operation->Operation).TakesCompletionRoutine;
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
        const bool wanted = context && context.Get() == operation->SocketContext && !context->Closing &&
                            ManagerSemaphore != nullptr;
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

}  // namespace

void QueueForAlertableWorker(OverlappedOperation* operation, HANDLE semaphore) {
    AppendPendingRecord(operation);
    ReleaseSemaphore(semaphore, 1, nullptr);
}

DWORD WINAPI AlertableWorker(LPVOID argument) {
    const HANDLE semaphore = argument;
    INT error = 0;
    WSATHREADID thread = {};
    const bool hasThread = UpcallTable.lpWPUOpenCurrentThread(&thread, &error) != SOCKET_ERROR;
    EventRequests requests;
    while (ManagerSemaphore == semaphore) {
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
    if (ManagerPort == nullptr && ManagerSemaphore == nullptr) CancelOverlappedRecords();
    CompleteCancelled(&requests);
    while (SleepEx(kLastRoutinesMilliseconds, TRUE) == WAIT_IO_COMPLETION) {
    }
    if (hasThread) UpcallTable.lpWPUCloseThread(&thread, &error);
    return 0;
}
