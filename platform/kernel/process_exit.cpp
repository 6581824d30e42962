// The order of a process's end.
#include "platform/kernel/process_exit.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "platform/kernel/fault_points.h"
#include "platform/kernel/modules.h"
#include "platform/kernel/thread.h"
#include "platform/kernel/thread_hold.h"
#include "platform/kernel/thread_state.h"

namespace platform {

namespace {

std::atomic<ThreadObject*> ExitingThread{nullptr};
int ExitStatus = 0;
std::atomic<bool> LeftAlone{false};

void OnExit(int status, void*) {
    ThreadObject* none = nullptr;
    if (!ExitingThread.compare_exchange_strong(none, &CurrentThread())) return;
    ExitStatus = status;
    PlatformScope::Attention.fetch_or(kProcessEndAttention);
    MarkAllOtherThreadsEnded();
    HoldOtherThreads();
    DetachModulesAtExit();
}

}  // namespace

void RegisterProcessExit() noexcept {
    if (!LeftAlone) on_exit(OnExit, nullptr);
}

void LeaveProcessEndAlone() noexcept {
    LeftAlone = true;
}

bool IsExitingThread() noexcept {
    ThreadObject* exiting = ExitingThread.load(std::memory_order_acquire);
    return exiting != nullptr && exiting == CurrentThreadState().object;
}

void FreezeIfProcessEnds() noexcept {
    if ((PlatformScope::Attention.load(std::memory_order_relaxed) & kProcessEndAttention) == 0) return;
    if (!IsExitingThread()) HoldCurrentThread();
}

void AbandonProcessExit() noexcept {
    // The C runtime of Windows writes buffered output before any library hears of the end. A frozen thread
    // may hold the stream for ever.
    if (ftrylockfile(stdout) == 0) fflush_unlocked(stdout);
    _exit(ExitStatus);
}

}  // namespace platform
