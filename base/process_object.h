// One object for the whole process, made on first use from any thread and destroyed by hand at detach, after
// which the next use makes it again. No static destructor: at process exit other threads may still be inside
// it.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include <atomic>
#include <new>

#include "base/atomic.h"

/// Storage of a T with the life described above; itself constant-initialised static storage. T's default
/// constructor must not throw.
template <typename T>
class ProcessObject {
  public:
    constexpr ProcessObject() = default;
    ProcessObject(const ProcessObject&) = delete;
    ProcessObject& operator=(const ProcessObject&) = delete;

    T& Get() noexcept {
        if (state_.Acquire() != kReady) Make();
        return *Object();
    }

    /// Null when it has not been made, or is being made.
    T* GetIfMade() noexcept { return state_.Acquire() == kReady ? Object() : nullptr; }

    /// For detach: no other thread may be inside `Get` or use the object any more.
    void Destroy() noexcept {
        if (state_.Acquire() != kReady) return;
        Object()->~T();
        state_.Publish(kNone);
    }

  private:
    enum State { kNone, kMaking, kReady };

    void Make() noexcept {
        for (;;) {
            if (state_.StoreIfStill(kNone, kMaking)) {
                new (storage_) T();
                state_.Publish(kReady);
                return;
            }
            if (state_.Acquire() == kReady) return;
            Sleep(0);
        }
    }

    T* Object() noexcept { return std::launder(reinterpret_cast<T*>(storage_)); }

    alignas(T) unsigned char storage_[sizeof(T)] = {};
    Atomic<State> state_{kNone};
};
