#include "platform/windows/clock_waits.h"

#include "platform/kernel/clock.h"

namespace platform {

namespace {

constexpr DWORD kSliceMilliseconds = 2;

// A wait with a limit is known to the clock, so that tests can wait until it has begun. Nobody has to be
// woken.
class TimedWait final : public ClockListener {
  public:
    TimedWait() { Register(); }
    ~TimedWait() override { Unregister(); }
    void OnClockChanged() noexcept override {}
};

}  // namespace

void SleepOnClock(DWORD milliseconds) noexcept {
    if (milliseconds == 0 || milliseconds == INFINITE) {
        Sleep(milliseconds);
        return;
    }
    const Deadline deadline = DeadlineAfter(milliseconds);
    const TimedWait registered;
    while (!HasPassed(deadline))
        Sleep(1);
}

DWORD WaitOnClock(HANDLE handle, DWORD milliseconds) noexcept {
    if (milliseconds == 0 || milliseconds == INFINITE) return WaitForSingleObject(handle, milliseconds);
    const Deadline deadline = DeadlineAfter(milliseconds);
    const TimedWait registered;
    for (;;) {
        const DWORD result = WaitForSingleObject(handle, kSliceMilliseconds);
        if (result != WAIT_TIMEOUT || HasPassed(deadline)) return result;
    }
}

int SelectOnClock(fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, timeval* timeout) noexcept {
    if (timeout == nullptr || (timeout->tv_sec == 0 && timeout->tv_usec == 0))
        return select(0, readSet, writeSet, exceptSet, timeout);
    fd_set* const sets[] = {readSet, writeSet, exceptSet};
    fd_set asked[3];
    for (int i = 0; i < 3; ++i) {
        if (sets[i] == nullptr) continue;
        if (sets[i]->fd_count > FD_SETSIZE) return select(0, readSet, writeSet, exceptSet, timeout);
        asked[i] = *sets[i];
    }
    const Deadline deadline = DeadlineAfter(static_cast<DWORD>(timeout->tv_sec) * 1000 +
                                            static_cast<DWORD>(timeout->tv_usec) / 1000);
    const TimedWait registered;
    for (;;) {
        timeval slice = {0, kSliceMilliseconds * 1000};
        const int result = select(0, readSet, writeSet, exceptSet, &slice);
        if (result != 0 || HasPassed(deadline)) return result;
        // A select that runs out of time has emptied the sets.
        for (int i = 0; i < 3; ++i) {
            if (sets[i] != nullptr) *sets[i] = asked[i];
        }
    }
}

}  // namespace platform
