// Per-thread state as other modules reach it, and the sleep of the scripted windows.
#include "platform/kernel/thread_state.h"

#include "platform/kernel/wait.h"
#include "tests/windows/host/clock_waits.h"

namespace platform {

ThreadState& CurrentThreadState() noexcept {
    return ThisThreadState;
}

void WaitForObjects(const HANDLE*, DWORD, bool, DWORD milliseconds, bool) {
    SleepOnClock(milliseconds);
}

}  // namespace platform
