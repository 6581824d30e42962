// One thread that hands requests down and runs their completion routines; it waits for nothing else, so that
// no request holds up another.
#include "provider/overlapped/alertable_worker.h"

#include "provider/overlapped/event_waiter.h"
#include "provider/overlapped/manager_handles.h"
#include "provider/overlapped/overlapped_completion.h"
#include "provider/overlapped/overlapped_execution.h"
#include "provider/overlapped/overlapped_records.h"

namespace {

constexpr DWORD kLastRoutinesMilliseconds = 20;

INT HandDown(OverlappedOperation* operation, SocketContext* context, LPWSATHREADID thread) {
    if (!RowOf(operation->Operation).TakesCompletionRoutine) return ExecuteByEvent(operation, context).Error;
    return CallLowerOverlapped(operation, context, {CompleteOverlappedOperation, thread});
}

void ExecuteOnWorker(OverlappedOperation* operation, LPWSATHREADID thread) {
    INT error = WSA_OPERATION_ABORTED;
    {
        INT ignored = 0;
        const ContextReference context(operation->CallerSocket, &ignored);
        // A request that its socket's close, or the last clean-up, has overtaken ends like one that was under
        // way.
        const bool wanted = context && context.Get() == operation->SocketContext && !context->Closing &&
                            ManagerSemaphore != nullptr;
        if (wanted) error = HandDown(operation, context.Get(), thread);
    }
    // Nobody is left to be told by a result: a refused request is reported like any other.
    if (error != 0 && error != WSA_IO_PENDING)
        CompleteOverlappedOperation(static_cast<DWORD>(error), 0, &operation->ProviderOverlapped, 0);
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
    while (ManagerSemaphore == semaphore) {
        const DWORD result = WaitForSingleObjectEx(semaphore, INFINITE, TRUE);
        if (result == WAIT_IO_COMPLETION) continue;
        if (result != WAIT_OBJECT_0) break;
        if (OverlappedOperation* const operation = TakePendingRecord())
            ExecuteOnWorker(operation, hasThread ? &thread : nullptr);
    }
    // What was handed down in the last moment is cancelled too; the ends of all of it come to this thread.
    // Not the requests of a next manager, if a lower provider has kept this thread for so long.
    if (ManagerPort == nullptr && ManagerSemaphore == nullptr) CancelOverlappedRecords();
    while (SleepEx(kLastRoutinesMilliseconds, TRUE) == WAIT_IO_COMPLETION) {
    }
    if (hasThread) UpcallTable.lpWPUCloseThread(&thread, &error);
    return 0;
}
