// Waiting for objects, as every wait function of the stand-in does it.
//
// Each waitable object has a lock of its own, under which its state changes and its waiters stand in a list.
// A wait for any of several objects is satisfied by whoever makes one signalled: it claims the wait (so that
// one signal of an auto-reset event releases exactly one thread) and consumes the signal for it. A wait for
// all is only woken, and looks for itself with all objects locked in address order. Parkers' and APC queues'
// locks are taken inside object locks.
#pragma once

#include <atomic>
#include <mutex>

#include "platform/kernel/handles.h"
#include "platform/kernel/parking.h"

namespace platform {

/// One wait under way; lives on the waiting thread's stack and is unlinked everywhere before that ends.
struct WaitRecord {
    static constexpr int kPending = -1;
    static constexpr int kApc = -2;
    static constexpr int kTimeout = -3;
    static constexpr int kTerminated = -4;

    bool Claim(int result) noexcept {
        int expected = kPending;
        return outcome.compare_exchange_strong(expected, result);
    }
    bool IsPending() const noexcept { return outcome.load() == kPending; }

    Parker* parker = nullptr;
    bool waitAll = false;
    std::atomic<int> outcome{kPending};  // or the index of the object that satisfied it
};

/// The place of a wait in one object's list. Set when the wait is linked; most waits never are.
struct WaitBlock {
    WaitRecord* record;
    int index;
    WaitBlock* next;
    WaitBlock* previous;
    bool linked;
};

class WaitableObject : public Object {
  public:
    using Object::Object;
    WaitableObject* AsWaitable() noexcept override { return this; }

  protected:
    /// Both with mutex_ held: can a wait be satisfied now, and what satisfying one does.
    virtual bool IsSignaled() const noexcept = 0;
    virtual void Consume() noexcept {}

    /// After a change towards signalled, with mutex_ held: satisfies waits in the order they came.
    void SatisfyWaiters() noexcept;

    std::mutex mutex_;

  private:
    friend class ObjectWait;
    void Link(WaitBlock* block) noexcept;
    void Unlink(WaitBlock* block) noexcept;

    WaitBlock* firstWaiter_ = nullptr;
    WaitBlock* lastWaiter_ = nullptr;
};

/// What a wait ended with.
enum class WaitResult { kObject, kTimeout, kApc, kTerminated };

struct WaitOutcome {
    WaitResult result;
    DWORD index;  // of the object, when one satisfied a wait for any
};

/// Waits until one (or each) of the objects is signalled, the deadline has passed, or, when alertable, APCs
/// have run. `count` is at most MAXIMUM_WAIT_OBJECTS and may be 0. With a timeout of 0 milliseconds the
/// thread never sleeps. The caller keeps the objects alive and holds no lock of the stand-in.
WaitOutcome WaitForObjects(WaitableObject* const* objects, DWORD count, bool waitAll, DWORD milliseconds,
                           bool alertable) noexcept;

}  // namespace platform
