// The collection thread's life. Its handle is kept until the thread has really ended, and is looked at by
// start-up and clean-up alone, both under `GlobalLock`: so nobody unloads the library under a thread that
// still runs in it.
#include "identity/process_identity.h"

#include <cstddef>
#include <exception>

#include "base/atomic.h"
#include "base/locker.h"
#include "base/trace.h"
#include "provider/guarded_sockets.h"
#include "provider/process_state.h"

char MainWindowTitle[256] = "<Unknown>";
char ImageSignerSubject[kMaxStringLength + 1] = "<Unknown>";

namespace {

constexpr DWORD kStopMilliseconds = 500;
constexpr DWORD kTerminateMilliseconds = 1000;

// A thread is terminated in kAbandoned only, which it never leaves for `IdentityLock`: the lock can't be lost
// with it.
enum CollectionState : int { kQuerying, kPublishing, kAbandoned };
Atomic<CollectionState> State{kQuerying};

HANDLE CollectionThread = nullptr;  // under GlobalLock

template <std::size_t size>
void CopyText(const std::string& text, char (&destination)[size]) {
    destination[text.copy(destination, size - 1)] = 0;
}

/// False when the collection has been abandoned.
bool BeginPublishing() {
    return State.StoreIfStill(kQuerying, kPublishing);
}

void EndPublishing() {
    State.Publish(kQuerying);
}

/// A publishing thread only copies; the wait for it is a moment.
void AbandonCollection() {
    while (!State.StoreIfStill(kQuerying, kAbandoned))
        Sleep(0);
}

}  // namespace

DWORD WINAPI CollectProcessInfo(LPVOID) {
    try {
        const std::string signer = GetImageSignerSubject();
        if (!BeginPublishing()) return 0;
        {
            Locker lock(IdentityLock);
            CopyText(signer, ImageSignerSubject);
        }
        EndPublishing();

        const std::string title = GetMainWindowTitle();
        if (!BeginPublishing()) return 0;
        {
            Locker lock(IdentityLock);
            CopyText(title, MainWindowTitle);
        }
        EndPublishing();
    } catch (const std::exception&) {
        // Out of memory: the old values stay.
    }
    return 0;
}

void StartProcessInfoCollection() {
    if (CollectionThread != nullptr) {
        if (WaitForSingleObject(CollectionThread, 0) != WAIT_OBJECT_0) return;
        SafeCloseHandle(CollectionThread);
    }
    State.Publish(kQuerying);
    DWORD threadId = 0;
    CollectionThread = CreateThread(nullptr, 0, CollectProcessInfo, nullptr, 0, &threadId);
    if (CollectionThread == nullptr) {
        Trace("ERROR:Failed to create the thread for getting process info, error = %d\n",
              static_cast<int>(GetLastError()));
    }
}

void StopProcessInfoCollection() {
    if (CollectionThread == nullptr) return;
    AbandonCollection();
    if (WaitForSingleObject(CollectionThread, kStopMilliseconds) != WAIT_OBJECT_0) {
        TerminateThread(CollectionThread, 1);
        WaitForSingleObject(CollectionThread, kTerminateMilliseconds);
    }
    SafeCloseHandle(CollectionThread);
    CollectionThread = nullptr;
}
