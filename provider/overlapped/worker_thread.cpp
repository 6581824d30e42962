// See worker_thread.h.
#include "provider/overlapped/worker_thread.h"

#include <memory>
#include <new>
#include <utility>

#include "base/atomic.h"
#include "base/layer_call.h"
#include "base/this_library.h"
#include "provider/guarded_sockets.h"

/// The starter and the threads of its that have not begun yet. The last one to leave has the library's
/// reference to give back.
struct BeginningThreads {
    HMODULE Library;
    Atomic<LONG> Count;
};

namespace {

/// What a thread of the manager is given. It lies in no heap of the layer's, which may go before the thread
/// begins.
struct WorkerStart {
    LPTHREAD_START_ROUTINE Procedure;
    LPVOID Argument;
    HANDLE Done;
    BeginningThreads* Beginning;
};

/// The reference for the last one to leave; null for the others.
HMODULE Leave(BeginningThreads* beginning) {
    const HMODULE library = beginning->Library;
    if (beginning->Count.Decrement() > 0) return nullptr;
    delete beginning;
    return library;
}

/// Everything up to the thread's last act; the event for that.
[[gnu::noinline]] HANDLE Work(LPVOID argument) {
    HANDLE done;
    HMODULE library;
    {
        const std::unique_ptr<WorkerStart> start(static_cast<WorkerStart*>(argument));
        done = start->Done;
        library = Leave(start->Beginning);
        if (library != nullptr && GiveReferenceBackElsewhere(library)) library = nullptr;
        // It ends requests on the layer's own sockets as well.
        const LayerCall call;
        start->Procedure(start->Argument);
    }
    if (library != nullptr) {
        // Without a thread to give it back meanwhile.
        SetEvent(done);
        FreeLibraryAndExitThread(library, 0);
    }
    return done;
}

/// Ends in a jump to SetEvent, which goes back to the system's code and not to this library's: that may be
/// unloaded as soon as the event is set, however long the thread is kept from running then. So there is
/// nothing to do afterwards here, and no local variable; the build checks what the compiler made of it.
DWORD WINAPI RunWorker(LPVOID argument) {
    return static_cast<DWORD>(SetEvent(Work(argument)));
}

/// How long a thread may take from its last act to its end, which can't come under the loader's lock. No code
/// of the library's is in between, but the system's counts it among the running.
constexpr DWORD kLastInstructionsMilliseconds = 10;

}  // namespace

ThreadStarter::ThreadStarter() : beginning_(new (std::nothrow) BeginningThreads) {
    if (beginning_ == nullptr) return;
    beginning_->Library = ReferenceThisLibrary();
    beginning_->Count.Increment();
    if (beginning_->Library == nullptr) delete std::exchange(beginning_, nullptr);
}

ThreadStarter::~ThreadStarter() {
    const HMODULE library = beginning_ != nullptr ? Leave(beginning_) : nullptr;
    // Tried again: a reference that nobody gives back keeps the library for good.
    if (library != nullptr && !FreeLibrary(library)) FreeLibrary(library);
}

bool ThreadStarter::Start(LPTHREAD_START_ROUTINE procedure, LPVOID argument, WorkerThread* worker) const {
    if (beginning_ == nullptr) return false;
    const HANDLE done = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    if (done == nullptr) return false;
    std::unique_ptr<WorkerStart> start(new (std::nothrow) WorkerStart{procedure, argument, done, beginning_});
    beginning_->Count.Increment();
    const HANDLE thread =
        start != nullptr ? CreateThread(nullptr, 0, RunWorker, start.get(), 0, nullptr) : nullptr;
    if (thread == nullptr) {
        // The starter is still there, so it is not the last one.
        beginning_->Count.Decrement();
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
