// Waits in slices of real time, and the end of a thread in one of them.
#include "tests/windows/host/clock_waits.h"

#include <algorithm>
#include <atomic>
#include <mutex>

namespace platform {

namespace {

constexpr DWORD kSliceMilliseconds = 2;
constexpr DWORD kEndPatienceMilliseconds = 1000;

// The thread that is to end in its wait, by its id; 0: none.
std::atomic<DWORD> EndingThread{0};
std::atomic<DWORD> EndingCode{0};

// A wait with a limit is known to the clock, so that tests can wait until it has begun. Nobody has to be
// woken.
class TimedWait final : public ClockListener {
  public:
    TimedWait() { Register(); }
    // The list's lock may clear the last error when others contend for it, and that is the wait's result.
    ~TimedWait() override {
        const DWORD error = GetLastError();
        Unregister();
        SetLastError(error);
    }
    void OnClockChanged() noexcept override {}

    /// Between two real waits. Does not return in a thread that is to end.
    void EndIfAsked() {
        if (EndingThread.load() != GetCurrentThreadId()) return;
        Unregister();
        ExitThread(EndingCode.load());
    }
};

}  // namespace

void SleepOnClock(DWORD milliseconds) noexcept {
    if (milliseconds == 0 || milliseconds == INFINITE) {
        Sleep(milliseconds);
        return;
    }
    const Deadline deadline = DeadlineAfter(milliseconds);
    TimedWait registered;
    for (; !HasPassed(deadline); registered.EndIfAsked())
        Sleep(1);
}

DWORD WaitForSeveralOnClock(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds) noexcept {
    // A thread needs real time to end, however fast the clock runs; one that is ended by force in the middle
    // of the system's code takes the process with it.
    const bool hasThread =
        std::any_of(handles, handles + count, [](HANDLE handle) { return GetThreadId(handle) != 0; });
    if (milliseconds == 0 || milliseconds == INFINITE || hasThread)
        return WaitForMultipleObjects(count, handles, all, milliseconds);
    const Deadline deadline = DeadlineAfter(milliseconds);
    TimedWait registered;
    for (;; registered.EndIfAsked()) {
        const DWORD result = WaitForMultipleObjects(count, handles, all, kSliceMilliseconds);
        if (result != WAIT_TIMEOUT || HasPassed(deadline)) return result;
    }
}

DWORD WaitOnClock(HANDLE handle, DWORD milliseconds) noexcept {
    return WaitForSeveralOnClock(1, &handle, FALSE, milliseconds);
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
    TimedWait registered;
    for (;; registered.EndIfAsked()) {
        timeval slice = {0, kSliceMilliseconds * 1000};
        const int result = select(0, readSet, writeSet, exceptSet, &slice);
        if (result != 0 || HasPassed(deadline)) return result;
        // A select that runs out of time has emptied the sets.
        for (int i = 0; i < 3; ++i) {
            if (sets[i] != nullptr) *sets[i] = asked[i];
        }
    }
}

BOOL TerminateInWait(HANDLE thread, DWORD exitCode) noexcept {
    static std::mutex& oneAtATime = *new std::mutex;
    const std::lock_guard<std::mutex> lock(oneAtATime);
    EndingCode = exitCode;
    EndingThread = GetThreadId(thread);
    const bool ended = WaitForSingleObject(thread, kEndPatienceMilliseconds) == WAIT_OBJECT_0;
    EndingThread = 0;
    return ended || TerminateThread(thread, exitCode);
}

}  // namespace platform
