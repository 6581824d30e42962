// The edges of the stand-in: where a thread stops when the process ends, and ends when it was terminated.
#include "platform/kernel/fault_points.h"
#include "platform/kernel/process_exit.h"
#include "platform/kernel/thread.h"
#include "platform/kernel/thread_state.h"

namespace platform {

namespace {

/// Whether a termination of the calling thread takes effect now: no code but its own is below on its stack.
bool MayEndHere() {
    const ThreadObject* const thread = CurrentThreadState().object;
    return CurrentCallDepth().boundaries == 0 && thread != nullptr && thread->IsTerminated();
}

}  // namespace

void PlatformScope::EnterOutermost() noexcept {
    FreezeIfProcessEnds();
    LeaveOutermost();
}

void PlatformScope::LeaveOutermost() noexcept {
    if (MayEndHere()) EndCurrentThread(CurrentThreadState().object->requestedExitCode());
}

}  // namespace platform
