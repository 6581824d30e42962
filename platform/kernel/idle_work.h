// What a thread that waits for a completion packet may do meanwhile: look after what produces the packets
// itself. On Windows the kernel queues a packet without any thread of the process; a thread of the stand-in's
// own in between would cost every completion a change of threads more.
//
// One worker module offers its work, one thread at a time takes it up, and only inside a wait.
#pragma once

#include "platform/kernel/clock.h"

namespace platform {

class IdleWork {
  public:
    IdleWork() = default;
    virtual ~IdleWork() = default;
    IdleWork(const IdleWork&) = delete;
    IdleWork& operator=(const IdleWork&) = delete;

    /// The calling thread takes the work up, and lets go of it.
    virtual void Begin() noexcept = 0;
    virtual void End() noexcept = 0;

    /// Waits for something to do, does it and returns; also at the deadline, and when interrupted. No lock
    /// may be held.
    virtual void Run(Deadline deadline) noexcept = 0;

    /// Makes the thread that runs it, or the next one that does, return. Any thread, any lock.
    virtual void Interrupt() noexcept = 0;
};

/// Offers work to the threads that wait.
void OfferIdleWork(IdleWork* work) noexcept;

/// Withdraws it, and waits until no thread is at it.
void WithdrawIdleWork() noexcept;

/// Makes the thread that is at it return, to look at why. Without a lock: the thread that is woken may run
/// first.
void InterruptIdleWork() noexcept;

/// The work, taken up by the calling thread for the scope; none when there is none, or another thread is at
/// it.
class IdleWorkUse {
  public:
    IdleWorkUse() noexcept;
    ~IdleWorkUse();
    IdleWorkUse(const IdleWorkUse&) = delete;
    IdleWorkUse& operator=(const IdleWorkUse&) = delete;

    explicit operator bool() const noexcept { return work_ != nullptr; }
    IdleWork* operator->() const noexcept { return work_; }

    /// Whether it is still offered: the thread is to stop when it is not.
    bool IsOffered() const noexcept;

  private:
    IdleWork* work_;
};

}  // namespace platform
