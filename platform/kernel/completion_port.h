// Completion ports: a queue of packets and the threads that wait for one.
//
// Any thread may call. A packet posted while a thread waits is handed to the thread that waited last, as on
// Windows, but for one that a waiting thread posts itself, which it keeps; packets leave in the order they
// came. The port's lock is a leaf: nothing is called with it held.
#pragma once

#include <atomic>
#include <deque>
#include <mutex>

#include "platform/kernel/clock.h"
#include "platform/kernel/handles.h"
#include "platform/kernel/idle_work.h"
#include "platform/kernel/parking.h"

namespace platform {

/// One completion as a waiting thread receives it. `error` is 0 or the system error that the operation ended
/// with.
struct CompletionPacket {
    OVERLAPPED* overlapped = nullptr;
    ULONG_PTR key = 0;
    DWORD bytes = 0;
    DWORD error = 0;
};

class CompletionPort final : public Object {
  public:
    CompletionPort() : Object(ObjectKind::kCompletionPort) {}

    /// Queues a packet; false without memory or when the port was closed.
    bool Post(const CompletionPacket& packet) noexcept;

    enum class Result { kPacket, kTimeout, kClosed, kTerminated };

    /// Takes the oldest packet, waiting for one until the deadline.
    Result Get(CompletionPacket* packet, Deadline deadline) noexcept;

    /// Wakes every waiter with kClosed; later posts fail.
    void OnLastHandleClosed() noexcept override;

  private:
    /// A waiting thread, on its own stack: gone as soon as `waiting` is false, so that is written last.
    struct Waiter {
        Parker* parker;
        Waiter* below = nullptr;
        CompletionPacket packet{};
        Result result = Result::kPacket;
        bool working = false;  // the thread does idle work instead of sleeping; set while on the stack
        std::atomic<bool> waiting{true};
    };
    static void EndWait(Waiter* waiter, Result result) noexcept;
    bool RemoveWaiter(Waiter* waiter) noexcept;
    bool EndedAtOnce(Waiter* waiter, Deadline deadline) noexcept;
    void AwaitPacket(Waiter* waiter, Deadline deadline) noexcept;
    void WorkUntilPacket(Waiter* waiter, Deadline deadline, const IdleWorkUse& work) noexcept;
    void SetWorking(Waiter* waiter, bool working) noexcept;
    void ParkUntilPacket(Waiter* waiter, Deadline deadline) noexcept;
    Waiter* TakeWaiter() noexcept;

    std::mutex mutex_;
    std::deque<CompletionPacket> packets_;
    Waiter* waiters_ = nullptr;  // top of the stack of waiting threads
    bool closed_ = false;
};

}  // namespace platform
