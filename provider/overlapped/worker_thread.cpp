// See worker_thread.h.
#include "provider/overlapped/worker_thread.h"

#include <memory>
#include <new>

#include "base/layer_call.h"
#include "provider/guarded_sockets.h"

namespace {

/// What a thread of the manager is given. It lies in no heap of the layer's, which may go before the thread
/// begins.
struct WorkerStart {
    LPTHREAD_START_ROUTINE Procedure;
    LPVOID Argument;
    HANDLE Done;
};

DWORD WINAPI RunWorker(LPVOID argument) {
    HANDLE done;
    {
        const std::unique_ptr<WorkerStart> start(static_cast<WorkerStart*>(argument));
        done = start->Done;
        // It ends requests on the layer's own sockets as well.
        const LayerCall call;
        start->Procedure(start->Argument);
    }
    SetEvent(done);
    return 0;
}

/// How long the few instructions between a thread's last act and its end may take.
constexpr DWORD kLastInstructionsMilliseconds = 10;

}  // namespace

bool StartWorkerThread(LPTHREAD_START_ROUTINE procedure, LPVOID argument, WorkerThread* worker) {
    const HANDLE done = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    if (done == nullptr) return false;
    std::unique_ptr<WorkerStart> start(new (std::nothrow) WorkerStart{procedure, argument, done});
    const HANDLE thread =
        start != nullptr ? CreateThread(nullptr, 0, RunWorker, start.get(), 0, nullptr) : nullptr;
    if (thread == nullptr) {
        SafeCloseHandle(done);
        return false;
    }
    (void)start.release();  // the thread's
    *worker = {thread, done};
    return true;
}

bool StopDeadline::Await(WorkerThread* worker) const {
    // A process that ends has ended its threads where they were.
    const HANDLE ends[] = {worker->Thread, worker->Done};
    DWORD result = WaitForMultipleObjects(2, ends, FALSE, Left());
    if (result == WAIT_FAILED) result = WaitForMultipleObjects(2, ends, FALSE, Left());
    const bool ended = result == WAIT_OBJECT_0 || result == WAIT_OBJECT_0 + 1;
    if (result == WAIT_OBJECT_0 + 1) WaitForSingleObject(worker->Thread, kLastInstructionsMilliseconds);
    SafeCloseHandle(worker->Thread);
    // One that has not ended will still set its event.
    if (ended) SafeCloseHandle(worker->Done);
    *worker = {};
    return ended;
}

DWORD StopDeadline::Left() const {
    const DWORD waited = GetTickCount() - start_;
    return waited < milliseconds_ ? milliseconds_ - waited : 0;
}
