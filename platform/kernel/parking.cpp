#include "platform/kernel/parking.h"

#include <chrono>

#include "platform/kernel/process_exit.h"
#include "platform/kernel/thread.h"
#include "platform/kernel/thread_state.h"

namespace platform {

bool Parker::ParkUntil(Deadline deadline) noexcept {
    bool unparked;
    if (deadline == kNoDeadline) {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!unparked_)
            condition_.wait(lock);
        unparked_ = false;
        unparked = true;
    } else {
        Register();
        {
            std::unique_lock<std::mutex> lock(mutex_);
            // Computed with the mutex held: a change of the clock after this unparks.
            const std::int64_t left = RealNanosecondsUntil(deadline);
            if (!unparked_ && left == kNoDeadline) {
                condition_.wait(lock);
            } else if (!unparked_ && left > 0) {
                condition_.wait_for(lock, std::chrono::nanoseconds(left));
            }
            unparked = unparked_ || !HasPassed(deadline);
            unparked_ = false;
        }
        Unregister();
    }
    FreezeIfProcessEnds();
    return unparked;
}

void Parker::Unpark() noexcept {
    const std::lock_guard<std::mutex> holder(mutex_);
    unparked_ = true;
    condition_.notify_one();
}

Parker& CurrentParker() noexcept {
    return CurrentThread().parker();
}

bool CurrentThreadIsTerminated() noexcept {
    const ThreadObject* thread = CurrentThreadState().object;
    return thread != nullptr && thread->IsTerminated();
}

}  // namespace platform
