// The clock: one rule from real to clock time, and those who are told when it changes.
#include "platform/kernel/clock.h"

#include <time.h>

#include <atomic>
#include <chrono>
#include <limits>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/kernel/clock_control.h"

namespace platform {

namespace {

constexpr std::int64_t kNanosecondsPerMillisecond = 1'000'000;
constexpr std::int64_t kNanosecondsPerTick = 100;               // of a FILETIME
constexpr std::int64_t kTicksTo1970 = 116'444'736'000'000'000;  // from 1601

/// One rule from real to clock time: reading = base + (real - realBase) * rate.
struct ClockRule {
    std::int64_t realBase;
    std::int64_t base;
    double rate;
};

std::int64_t RealNow() noexcept {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

// Null while the clock is the system's own.
std::atomic<const ClockRule*> TheRule{nullptr};

std::atomic<std::int64_t> SetBack{0};  // what the calendar is behind

std::int64_t Apply(const ClockRule* rule, std::int64_t real) noexcept {
    if (rule == nullptr) return real;
    const std::int64_t passed = real - rule->realBase;
    if (rule->rate == 1) return rule->base + passed;
    return rule->base + static_cast<std::int64_t>(static_cast<double>(passed) * rule->rate);
}

/// What calendar time is ahead of the clock's reading: fixed at the first use, so that both run together.
std::int64_t CalendarOffset() noexcept {
    static const std::int64_t offset = [] {
        timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec - RealNow();
    }();
    return offset;
}

}  // namespace

class ClockListenerList {
  public:
    void Add(ClockListener* listener) {
        const std::lock_guard<std::mutex> holder(mutex_);
        listener->previous_ = nullptr;
        listener->next_ = first_;
        if (first_ != nullptr) first_->previous_ = listener;
        first_ = listener;
        ++count_;
        ++added_;
    }

    void Remove(ClockListener* listener) {
        const std::lock_guard<std::mutex> holder(mutex_);
        (listener->previous_ != nullptr ? listener->previous_->next_ : first_) = listener->next_;
        if (listener->next_ != nullptr) listener->next_->previous_ = listener->previous_;
        --count_;
    }

    /// Replaces the rule and tells everybody. Readers may still use an older rule: all are kept.
    template <class MakeRule>
    void Change(MakeRule makeRule) {
        const std::lock_guard<std::mutex> holder(mutex_);
        const std::int64_t real = RealNow();
        const ClockRule* present = TheRule.load(std::memory_order_relaxed);
        const double rate = present == nullptr ? 1 : present->rate;
        rules_.push_back(std::make_unique<ClockRule>(makeRule(real, Apply(present, real), rate)));
        TheRule.store(rules_.back().get(), std::memory_order_release);
        for (ClockListener* listener = first_; listener != nullptr; listener = listener->next_)
            listener->OnClockChanged();
    }

    int Count() {
        const std::lock_guard<std::mutex> holder(mutex_);
        return count_;
    }

    std::uint64_t CountAdded() {
        const std::lock_guard<std::mutex> holder(mutex_);
        return added_;
    }

  private:
    std::mutex mutex_;
    ClockListener* first_ = nullptr;
    int count_ = 0;
    std::uint64_t added_ = 0;
    std::vector<std::unique_ptr<ClockRule>> rules_;
};

namespace {

ClockListenerList& TheListeners() {
    static ClockListenerList* const list = new ClockListenerList;
    return *list;
}

}  // namespace

void ClockListener::Register() noexcept {
    TheListeners().Add(this);
}
void ClockListener::Unregister() noexcept {
    TheListeners().Remove(this);
}

std::int64_t ClockNow() noexcept {
    return Apply(TheRule.load(std::memory_order_acquire), RealNow());
}

std::int64_t CalendarNow() noexcept {
    return (ClockNow() + CalendarOffset() - SetBack.load()) / kNanosecondsPerTick + kTicksTo1970;
}

Deadline DeadlineAfter(DWORD milliseconds) noexcept {
    if (milliseconds == INFINITE) return kNoDeadline;
    return ClockNow() + static_cast<std::int64_t>(milliseconds) * kNanosecondsPerMillisecond;
}

std::int64_t RealNanosecondsUntil(Deadline deadline) noexcept {
    if (deadline == kNoDeadline) return kNoDeadline;
    const ClockRule* rule = TheRule.load(std::memory_order_acquire);
    const std::int64_t left = deadline - Apply(rule, RealNow());
    if (left <= 0) return 0;
    if (rule == nullptr || rule->rate == 1) return left;
    if (rule->rate == 0) return kNoDeadline;
    return static_cast<std::int64_t>(static_cast<double>(left) / rule->rate) + 1;
}

int PollTimeoutUntil(Deadline deadline) noexcept {
    const std::int64_t left = RealNanosecondsUntil(deadline);
    if (left == kNoDeadline) return -1;
    const std::int64_t milliseconds = (left + kNanosecondsPerMillisecond - 1) / kNanosecondsPerMillisecond;
    return milliseconds > std::numeric_limits<int>::max() ? std::numeric_limits<int>::max()
                                                          : static_cast<int>(milliseconds);
}

void SetClockRate(double factor) {
    TheListeners().Change([factor](std::int64_t real, std::int64_t reading, double) {
        return ClockRule{real, reading, factor};
    });
}

void AdvanceClock(DWORD milliseconds) {
    TheListeners().Change([milliseconds](std::int64_t real, std::int64_t reading, double rate) {
        return ClockRule{real, reading + static_cast<std::int64_t>(milliseconds) * kNanosecondsPerMillisecond,
                         rate};
    });
}

void SetCalendarBack(DWORD milliseconds) {
    SetBack = static_cast<std::int64_t>(milliseconds) * kNanosecondsPerMillisecond;
}

void ResetClock() {
    SetBack = 0;
    SetClockRate(1);
}

std::uint64_t CountBegunTimedWaits() {
    return TheListeners().CountAdded();
}

bool WaitForTimedWaits(int count) {
    const std::int64_t giveUp = RealNow() + 10'000 * kNanosecondsPerMillisecond;
    while (TheListeners().Count() < count) {
        if (RealNow() > giveUp) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    return true;
}

}  // namespace platform
