// The one clock behind every wait, time-out and time stamp of the stand-in. Normally the system's; it can
// be made to run faster, stopped and stepped (platform/kernel/clock_control.h).
//
// Any thread may call. Reading the clock takes no lock.
#pragma once

#include <windows.h>

#include <cstdint>

namespace platform {

/// Nanoseconds of the clock since some fixed moment; never goes back.
std::int64_t ClockNow() noexcept;

/// Calendar time of the clock in 100-nanosecond units since 1601-01-01 UTC.
std::int64_t CalendarNow() noexcept;

/// A moment of the clock (ClockNow's units) until which something waits.
using Deadline = std::int64_t;
constexpr Deadline kNoDeadline = INT64_MAX;

/// The moment `milliseconds` from now; kNoDeadline for INFINITE.
Deadline DeadlineAfter(DWORD milliseconds) noexcept;

inline bool HasPassed(Deadline deadline) noexcept {
    return deadline != kNoDeadline && ClockNow() >= deadline;
}

/// Real nanoseconds until the deadline at the clock's present rate: 0 when it has passed, kNoDeadline when
/// there is none or the clock stands still. Only valid until the clock is changed, hence ClockListener.
std::int64_t RealNanosecondsUntil(Deadline deadline) noexcept;

/// The same as a time-out for poll or epoll_wait: milliseconds rounded up, -1 for no time-out.
int PollTimeoutUntil(Deadline deadline) noexcept;

/// The calling thread does nothing for that long.
void SleepOnClock(DWORD milliseconds) noexcept;

/// Told when a test changes the clock, so that whoever sleeps in real time until a deadline can compute it
/// anew. A wait with a deadline is
///   Register; loop { compute the real time left; sleep that long or until woken }; Unregister.
class ClockListener {
  public:
    ClockListener() = default;
    virtual ~ClockListener() = default;
    ClockListener(const ClockListener&) = delete;
    ClockListener& operator=(const ClockListener&) = delete;

    void Register() noexcept;
    void Unregister() noexcept;

    /// Runs with the clock's registration lock held: wakes somebody and does nothing else. It may take a lock
    /// only if Register and Unregister are never called with that lock held.
    virtual void OnClockChanged() noexcept = 0;

  private:
    friend class ClockListenerList;
    ClockListener* next_ = nullptr;
    ClockListener* previous_ = nullptr;
};

}  // namespace platform
