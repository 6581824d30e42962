// Threads as the Windows API has them.
#include <pthread.h>
#include <unistd.h>
#include <windows.h>

#include <memory>
#include <new>

#include "platform/guard/thread_guard.h"
#include "platform/kernel/fault_points.h"
#include "platform/kernel/last_error.h"
#include "platform/kernel/modules.h"
#include "platform/kernel/process_exit.h"
#include "platform/kernel/thread.h"
#include "platform/kernel/thread_hold.h"
#include "platform/kernel/thread_state.h"

namespace platform {

namespace {

struct ThreadStart {
    std::shared_ptr<ThreadObject> object;
    LPTHREAD_START_ROUTINE start;
    LPVOID parameter;
};

/// Runs the thread's own code; returns here also when the thread was ended from somewhere deep inside it.
DWORD RunThread(const ThreadStart& package) noexcept {
    ThreadObject& thread = *package.object;
    if (setjmp(thread.endBuffer()) == 0) {
        NotifyModulesOfThread(DLL_THREAD_ATTACH);
        // What was queued before the thread ran comes first.
        thread.RunApcs();
        thread.RequestExitCode(package.start(package.parameter));
    }
    return thread.requestedExitCode();
}

void* ThreadMain(void* argument) {
    const std::unique_ptr<ThreadStart> package(static_cast<ThreadStart*>(argument));
    ThreadState& state = CurrentThreadState();
    state.object = package->object.get();
    LetThreadBeHeld();
    const DWORD exitCode = RunThread(*package);
    CurrentCallDepth() = {};
    DropGuards();
    FreezeIfProcessEnds();
    // A killed thread tells nobody.
    if (!package->object->IsTerminated()) NotifyModulesOfThread(DLL_THREAD_DETACH);
    ReleaseThreadState();
    state.object = nullptr;
    package->object->MarkEnded(exitCode);
    return nullptr;
}

bool StartDetached(ThreadStart* package) {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) return false;
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    const bool started = pthread_create(&thread, &attributes, ThreadMain, package) == 0;
    pthread_attr_destroy(&attributes);
    return started;
}

}  // namespace

void EndCurrentThread(DWORD exitCode) noexcept {
    ThreadObject& thread = CurrentThread();
    thread.RequestExitCode(exitCode);
    longjmp(thread.endBuffer(), 1);
}

}  // namespace platform

using platform::CurrentThread;
using platform::Fail;
using platform::ObjectKind;
using platform::PlatformCall;
using platform::ReferenceHandleAs;
using platform::ThreadObject;

HANDLE CreateThread(LPSECURITY_ATTRIBUTES, SIZE_T, LPTHREAD_START_ROUTINE start, LPVOID parameter,
                    DWORD flags, LPDWORD threadId) {
    PlatformCall call("CreateThread", ERROR_NOT_ENOUGH_MEMORY);
    if (call.Fails()) return nullptr;
    if ((flags & CREATE_SUSPENDED) != 0) return Fail<HANDLE>(ERROR_CALL_NOT_IMPLEMENTED, nullptr);
    try {
        auto object = platform::MakeThreadObject(true);
        auto package =
            std::make_unique<platform::ThreadStart>(platform::ThreadStart{object, start, parameter});
        const HANDLE handle = platform::OpenHandle(object);
        if (handle == nullptr) return nullptr;
        if (threadId != nullptr) *threadId = object->id();
        if (!platform::StartDetached(package.get())) {
            platform::CloseOpenHandle(handle);
            return Fail<HANDLE>(ERROR_NOT_ENOUGH_MEMORY, nullptr);
        }
        package.release();
        return handle;
    } catch (const std::bad_alloc&) {
        return Fail<HANDLE>(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    }
}

void ExitThread(DWORD exitCode) {
    if (CurrentThread().IsMade()) platform::EndCurrentThread(exitCode);
    pthread_exit(nullptr);
}

BOOL TerminateThread(HANDLE thread, DWORD exitCode) {
    PlatformCall call("TerminateThread", ERROR_ACCESS_DENIED);
    if (call.Fails()) return FALSE;
    auto object = ReferenceHandleAs<ThreadObject>(thread, ObjectKind::kThread);
    if (object == nullptr) return Fail(ERROR_INVALID_HANDLE);
    // Only a thread with a known end can be made to jump there.
    if (!object->IsMade()) return Fail(ERROR_ACCESS_DENIED);
    if (object.get() == &CurrentThread()) {
        // Nothing is destroyed by the jump, so this reference is released before it.
        object.reset();
        platform::EndCurrentThread(exitCode);
    }
    object->Terminate(exitCode);
    return TRUE;
}

BOOL GetExitCodeThread(HANDLE thread, LPDWORD exitCode) {
    PlatformCall call("GetExitCodeThread", ERROR_INVALID_HANDLE);
    if (call.Fails()) return FALSE;
    const auto object = ReferenceHandleAs<ThreadObject>(thread, ObjectKind::kThread);
    if (object == nullptr) return Fail(ERROR_INVALID_HANDLE);
    *exitCode = object->ExitCode();
    return TRUE;
}

HANDLE OpenThread(DWORD, BOOL, DWORD threadId) {
    PlatformCall call("OpenThread", ERROR_ACCESS_DENIED);
    if (call.Fails()) return nullptr;
    std::shared_ptr<ThreadObject> object = platform::FindThread(threadId);
    if (object == nullptr) return Fail<HANDLE>(ERROR_INVALID_PARAMETER, nullptr);
    return platform::OpenHandle(std::move(object));
}

DWORD QueueUserAPC(PAPCFUNC function, HANDLE thread, ULONG_PTR parameter) {
    PlatformCall call("QueueUserAPC", ERROR_NOT_ENOUGH_MEMORY);
    if (call.Fails()) return 0;
    const auto object = ReferenceHandleAs<ThreadObject>(thread, ObjectKind::kThread);
    if (object == nullptr) return Fail<DWORD>(ERROR_INVALID_HANDLE, 0);
    return object->QueueApc(function, parameter) ? 1 : Fail<DWORD>(ERROR_GEN_FAILURE, 0);
}

HANDLE GetCurrentProcess() {
    return reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1));
}
HANDLE GetCurrentThread() {
    return reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-2));
}
DWORD GetCurrentProcessId() {
    static const DWORD id = static_cast<DWORD>(getpid());
    return id;
}
DWORD GetCurrentThreadId() {
    return CurrentThread().id();
}
