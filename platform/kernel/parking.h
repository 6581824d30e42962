// How a thread of the stand-in sleeps: each has one parker, on which every wait of any kind comes to rest.
//
// Only the owning thread parks; any thread unparks. An unpark before the park is not lost, and a park may
// return early, so the caller checks what it waits for in a loop. A parked thread's deadline is one of the
// platform clock.
#pragma once

#include <condition_variable>
#include <mutex>

#include "platform/kernel/clock.h"

namespace platform {

class Parker final : private ClockListener {
  public:
    Parker() = default;

    /// Sleeps until unparked or the deadline has passed. False when it has passed.
    bool ParkUntil(Deadline deadline) noexcept;

    void Unpark() noexcept;

  private:
    void OnClockChanged() noexcept override { Unpark(); }

    std::mutex mutex_;  // leaf
    std::condition_variable condition_;
    bool unparked_ = false;
};

/// The calling thread's parker.
Parker& CurrentParker() noexcept;

/// True when the calling thread has been terminated: whatever it waits for, it gives up with an error, and is
/// ended when it leaves its outermost platform call. A loop around ParkUntil checks it each time.
bool CurrentThreadIsTerminated() noexcept;

}  // namespace platform
