// How a thread of the stand-in sleeps: each has one parker, on which every wait of any kind comes to rest.
//
// Only the owning thread parks; any thread unparks. An unpark before the park is not lost, and a park may
// return early, so the caller checks what it waits for in a loop. A parked thread's deadline is one of the
// platform clock.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/kernel/clock.h"

namespace platform {

/// Lives as long as the process: whoever woke a thread may still be about to unpark it when that thread has
/// ended. A parker whose thread has ended is given to the next new thread, to which a late unpark is an early
/// return.
class Parker final : private ClockListener {
  public:
    /// A parker that belongs to nobody. Throws std::bad_alloc.
    static Parker& Acquire();

    /// Gives a parker back on which nobody parks any more.
    static void Release(Parker& parker) noexcept;

    /// Sleeps until unparked or the deadline has passed. False when it has passed.
    bool ParkUntil(Deadline deadline) noexcept;

    /// May be called with any lock held, or none.
    void Unpark() noexcept;

  private:
    enum State : std::uint32_t { kIdle, kUnparked, kParked };

    Parker() = default;
    void OnClockChanged() noexcept override { Unpark(); }
    bool BeginParking() noexcept;
    void SleepWhileParked(std::int64_t nanoseconds) noexcept;

    std::atomic<std::uint32_t> state_{kIdle};
    Parker* nextFree_ = nullptr;
};

/// The calling thread's parker.
Parker& CurrentParker() noexcept;

/// True when the calling thread has been terminated: whatever it waits for, it gives up with an error, and is
/// ended when it leaves its outermost platform call. A loop around ParkUntil checks it each time.
bool CurrentThreadIsTerminated() noexcept;

}  // namespace platform
