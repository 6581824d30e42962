// The library's one kind of value that several threads share without a lock. Reading and assigning promise
// that the access is whole and nothing about the order of different values: enough for flags, handles and
// counters of which any recent value will do, and as cheap as an ordinary variable. Where other values hang
// on it, the name of the access says so.
#pragma once

#include <atomic>

template <class T>
class Atomic {
  public:
    constexpr Atomic() noexcept : value_(T()) {}
    explicit constexpr Atomic(T value) noexcept : value_(value) {}
    Atomic(const Atomic&) = delete;
    Atomic& operator=(const Atomic&) = delete;

    operator T() const noexcept { return value_.load(std::memory_order_relaxed); }

    T operator=(T value) noexcept {
        value_.store(value, std::memory_order_relaxed);
        return value;
    }

    /// Stores `value` for a thread that reads it with Acquire: that one sees everything written before.
    void Publish(T value) noexcept { value_.store(value, std::memory_order_release); }
    T Acquire() const noexcept { return value_.load(std::memory_order_acquire); }

    /// Stores `value` and returns what was there: of several threads that detach a handle, one gets it.
    T Exchange(T value) noexcept { return value_.exchange(value, std::memory_order_acq_rel); }

    /// Stores `value` when `expected` is still there; true when it was.
    bool StoreIfStill(T expected, T value) noexcept {
        return value_.compare_exchange_strong(expected, value);
    }

    /// Adds to a number whose order against other values does not matter; returns the value before.
    T FetchAdd(T amount) noexcept { return value_.fetch_add(amount, std::memory_order_relaxed); }

    /// Counts users; both return the count after. All threads see these and each other's in one order, so
    /// that of a thread that counts itself and one that looks at the count, one sees the other.
    T Increment() noexcept { return ++value_; }
    T Decrement() noexcept { return --value_; }

    /// Sets bits of a bit set; returns the value after.
    T SetBits(T bits) noexcept {
        return static_cast<T>(value_.fetch_or(bits, std::memory_order_relaxed) | bits);
    }

  private:
    std::atomic<T> value_;
};

/// The same for a word that lies in a structure of Windows', which the system and the application know as
/// plain memory.
template <class T>
T AcquireWord(const T& word) noexcept {
    return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

template <class T>
void PublishWord(T* word, T value) noexcept {
    __atomic_store_n(word, value, __ATOMIC_RELEASE);
}
