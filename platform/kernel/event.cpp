// Events and semaphores. Names are not supported: objects are never shared between processes.
#include <windows.h>

#include <new>

#include "platform/kernel/fault_points.h"
#include "platform/kernel/last_error.h"
#include "platform/kernel/wait.h"

namespace platform {

namespace {

class EventObject final : public WaitableObject {
  public:
    EventObject(bool manualReset, bool signaled)
        : WaitableObject(ObjectKind::kEvent), manualReset_(manualReset), signaled_(signaled) {}

    void Set() noexcept {
        const std::lock_guard<std::mutex> holder(mutex_);
        signaled_ = true;
        SatisfyWaiters();
    }

    void Reset() noexcept {
        const std::lock_guard<std::mutex> holder(mutex_);
        signaled_ = false;
    }

  private:
    bool IsSignaled() const noexcept override { return signaled_; }
    void Consume() noexcept override {
        if (!manualReset_) signaled_ = false;
    }

    const bool manualReset_;
    bool signaled_;
};

class SemaphoreObject final : public WaitableObject {
  public:
    SemaphoreObject(LONG count, LONG maximum)
        : WaitableObject(ObjectKind::kSemaphore), count_(count), maximum_(maximum) {}

    bool Release(LONG count, LONG* previous) noexcept {
        const std::lock_guard<std::mutex> holder(mutex_);
        if (count > maximum_ - count_) return false;
        if (previous != nullptr) *previous = count_;
        count_ += count;
        SatisfyWaiters();
        return true;
    }

  private:
    bool IsSignaled() const noexcept override { return count_ > 0; }
    void Consume() noexcept override { --count_; }

    LONG count_;
    const LONG maximum_;
};

template <class Type, class... Arguments>
HANDLE Make(Arguments... arguments) noexcept {
    try {
        return OpenHandle(std::make_shared<Type>(arguments...));
    } catch (const std::bad_alloc&) {
        return Fail<HANDLE>(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    }
}

HANDLE MakeEvent(bool named, BOOL manualReset, BOOL initialState) noexcept {
    if (named) return Fail<HANDLE>(ERROR_CALL_NOT_IMPLEMENTED, nullptr);
    return Make<EventObject>(manualReset != FALSE, initialState != FALSE);
}

HANDLE MakeSemaphore(bool named, LONG initialCount, LONG maximumCount) noexcept {
    if (named) return Fail<HANDLE>(ERROR_CALL_NOT_IMPLEMENTED, nullptr);
    if (initialCount < 0 || maximumCount <= 0 || initialCount > maximumCount)
        return Fail<HANDLE>(ERROR_INVALID_PARAMETER, nullptr);
    return Make<SemaphoreObject>(initialCount, maximumCount);
}

}  // namespace

}  // namespace platform

using platform::EventObject;
using platform::Fail;
using platform::ObjectKind;
using platform::PlatformCall;
using platform::ReferenceHandleAs;
using platform::SemaphoreObject;

HANDLE CreateEventA(LPSECURITY_ATTRIBUTES, BOOL manualReset, BOOL initialState, LPCSTR name) {
    PlatformCall call("CreateEventA", ERROR_NOT_ENOUGH_MEMORY);
    if (call.Fails()) return nullptr;
    return platform::MakeEvent(name != nullptr, manualReset, initialState);
}

HANDLE CreateEventW(LPSECURITY_ATTRIBUTES, BOOL manualReset, BOOL initialState, LPCWSTR name) {
    PlatformCall call("CreateEventW", ERROR_NOT_ENOUGH_MEMORY);
    if (call.Fails()) return nullptr;
    return platform::MakeEvent(name != nullptr, manualReset, initialState);
}

BOOL SetEvent(HANDLE event) {
    PlatformCall call("SetEvent", ERROR_INVALID_HANDLE);
    if (call.Fails()) return FALSE;
    const auto object = ReferenceHandleAs<EventObject>(event, ObjectKind::kEvent);
    if (object == nullptr) return Fail(ERROR_INVALID_HANDLE);
    object->Set();
    return TRUE;
}

BOOL ResetEvent(HANDLE event) {
    PlatformCall call("ResetEvent", ERROR_INVALID_HANDLE);
    if (call.Fails()) return FALSE;
    const auto object = ReferenceHandleAs<EventObject>(event, ObjectKind::kEvent);
    if (object == nullptr) return Fail(ERROR_INVALID_HANDLE);
    object->Reset();
    return TRUE;
}

HANDLE CreateSemaphoreA(LPSECURITY_ATTRIBUTES, LONG initialCount, LONG maximumCount, LPCSTR name) {
    PlatformCall call("CreateSemaphoreA", ERROR_NOT_ENOUGH_MEMORY);
    if (call.Fails()) return nullptr;
    return platform::MakeSemaphore(name != nullptr, initialCount, maximumCount);
}

HANDLE CreateSemaphoreW(LPSECURITY_ATTRIBUTES, LONG initialCount, LONG maximumCount, LPCWSTR name) {
    PlatformCall call("CreateSemaphoreW", ERROR_NOT_ENOUGH_MEMORY);
    if (call.Fails()) return nullptr;
    return platform::MakeSemaphore(name != nullptr, initialCount, maximumCount);
}

BOOL ReleaseSemaphore(HANDLE semaphore, LONG releaseCount, LPLONG previousCount) {
    PlatformCall call("ReleaseSemaphore", ERROR_INVALID_HANDLE);
    if (call.Fails()) return FALSE;
    const auto object = ReferenceHandleAs<SemaphoreObject>(semaphore, ObjectKind::kSemaphore);
    if (object == nullptr) return Fail(ERROR_INVALID_HANDLE);
    if (releaseCount <= 0) return Fail(ERROR_INVALID_PARAMETER);
    LONG previous = 0;
    if (!object->Release(releaseCount, &previous)) return Fail(ERROR_TOO_MANY_POSTS);
    if (previousCount != nullptr) *previousCount = previous;
    return TRUE;
}
