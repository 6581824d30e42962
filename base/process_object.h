// One object for the whole process, made on first use from any thread and destroyed by hand at detach, after
// which the next use makes it again. No static destructor: at process exit other threads may still be inside
// it.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include <atomic>
#include <new>

/// Storage of a T with the life described above; itself constant-initialised static storage. T's default
/// constructor must not throw.
template <typename T>
class ProcessObject {
  public:
    constexpr ProcessObject() = default;
    ProcessObject(const ProcessObject&) = delete;
    ProcessObject& operator=(const ProcessObject&) = delete;

    T& Get() noexcept {
        if (state_.load(std::memory_order_acquire) != kReady) Make();
        return *Object();
    }

    /// Null when it has not been made, or is being made.
    T* GetIfMade() noexcept { return state_.load(std::memory_order_acquire) == kReady ? Object() : nullptr; }

    /// For detach: no other thread may be inside `Get` or use the object any more.
    void Destroy() noexcept {
        if (state_.load(std::memory_order_acquire) != kReady) return;
        Object()->~T();
        state_.store(kNone, std::memory_order_release);
    }

  private:
    enum State { kNone, kMaking, kReady };

    void Make() noexcept {
        for (;;) {
            State expected = kNone;
            if (state_.compare_exchange_strong(expected, kMaking, std::memory_order_acquire)) {
                new (storage_) T();
                state_.store(kReady, std::memory_order_release);
                return;
            }
            if (expected == kReady) return;
            Sleep(0);
        }
    }

    T* Object() noexcept { return std::launder(reinterpret_cast<T*>(storage_)); }

    alignas(T) unsigned char storage_[sizeof(T)] = {};
    std::atomic<State> state_{kNone};
};
