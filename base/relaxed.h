// A plain value that several threads may read and write without a lock. It promises that each access is whole
// and nothing about the order of different values: enough for flags, handles and counters of which any recent
// value will do, and as cheap as an ordinary variable.
#pragma once

#include <atomic>

template <class T>
class Relaxed {
  public:
    Relaxed() noexcept : value_(T()) {}
    explicit Relaxed(T value) noexcept : value_(value) {}
    Relaxed(const Relaxed&) = delete;
    Relaxed& operator=(const Relaxed&) = delete;

    operator T() const noexcept { return value_.load(std::memory_order_relaxed); }

    T operator=(T value) noexcept {
        value_.store(value, std::memory_order_relaxed);
        return value;
    }

    /// Stores `value` and returns what was there: of several threads that detach a handle, one gets it.
    T Exchange(T value) noexcept { return value_.exchange(value, std::memory_order_acq_rel); }

    /// Stores `value` when `expected` is still there; true when it was.
    bool StoreIfStill(T expected, T value) noexcept {
        return value_.compare_exchange_strong(expected, value);
    }

    /// Adds to a number; returns the value before.
    T FetchAdd(T amount) noexcept { return value_.fetch_add(amount, std::memory_order_relaxed); }

    /// Sets bits of a bit set; returns the value after.
    T SetBits(T bits) noexcept {
        return static_cast<T>(value_.fetch_or(bits, std::memory_order_relaxed) | bits);
    }

  private:
    std::atomic<T> value_;
};
