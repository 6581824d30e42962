// A parked thread sleeps on the word of its state in the kernel. Nothing is locked, so a woken thread never
// runs into its waker, which would cost two more switches on a busy processor.
#include "platform/kernel/parking.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>
#include <mutex>

#include "platform/kernel/process_exit.h"
#include "platform/kernel/thread.h"
#include "platform/kernel/thread_state.h"

namespace platform {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1000000000;

std::mutex FreeLock;  // leaf; guards FirstFree
Parker* FirstFree = nullptr;

}  // namespace

Parker& Parker::Acquire() {
    {
        const std::lock_guard<std::mutex> holder(FreeLock);
        if (Parker* const parker = FirstFree; parker != nullptr) {
            FirstFree = parker->nextFree_;
            return *parker;
        }
    }
    return *new Parker;
}

void Parker::Release(Parker& parker) noexcept {
    const std::lock_guard<std::mutex> holder(FreeLock);
    parker.nextFree_ = FirstFree;
    FirstFree = &parker;
}

/// False when the thread was unparked already, which is used up by that.
bool Parker::BeginParking() noexcept {
    std::uint32_t idle = kIdle;
    if (state_.compare_exchange_strong(idle, kParked)) return true;
    state_.store(kIdle);
    return false;
}

void Parker::SleepWhileParked(std::int64_t nanoseconds) noexcept {
    timespec duration = {};
    const timespec* timeout = nullptr;
    if (nanoseconds != kNoDeadline) {
        duration.tv_sec = static_cast<std::time_t>(nanoseconds / kNanosecondsPerSecond);
        duration.tv_nsec = static_cast<long>(nanoseconds % kNanosecondsPerSecond);
        timeout = &duration;
    }
    syscall(SYS_futex, &state_, FUTEX_WAIT_PRIVATE, kParked, timeout, nullptr, 0);
}

bool Parker::ParkUntil(Deadline deadline) noexcept {
    const bool timed = deadline != kNoDeadline;
    if (timed) Register();
    bool unparked = !BeginParking();
    if (!unparked) {
        // Computed while parked: a change of the clock after this unparks.
        const std::int64_t left = RealNanosecondsUntil(deadline);
        if (left > 0) SleepWhileParked(left);
        unparked = state_.exchange(kIdle) == kUnparked;
    }
    if (timed) Unregister();
    FreezeIfProcessEnds();
    return unparked || !HasPassed(deadline);
}

void Parker::Unpark() noexcept {
    if (state_.exchange(kUnparked) != kParked) return;
    syscall(SYS_futex, &state_, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

Parker& CurrentParker() noexcept {
    return CurrentThread().parker();
}

bool CurrentThreadIsTerminated() noexcept {
    const ThreadObject* thread = CurrentThreadState().object;
    return thread != nullptr && thread->IsTerminated();
}

}  // namespace platform
