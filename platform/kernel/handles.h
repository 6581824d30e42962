// Kernel objects and the process's handle table.
//
// An object lives as long as a handle or a std::shared_ptr refers to it. Any thread may call anything here.
// The table takes only short locks of its own, so everything may be called with other locks held;
// OnLastHandleClosed runs on the thread that closes, without any lock of the table. Handle values are
// multiples of 4, the freed one is given out again first, as on Windows; they fit into 32 bits, so that a
// SOCKET can be a HANDLE.
#pragma once

#include <windows.h>

#include <memory>

namespace platform {

class WaitableObject;

/// What an object is; resources are counted by it.
enum class ObjectKind {
    kEvent,
    kSemaphore,
    kThread,
    kCompletionPort,
    kRegistryKey,
    kFile,
    kLowerSocket,    // a socket of the base provider
    kLayeredSocket,  // a handle that the Winsock host gave to an application or provider
    kOther,
    kCount
};

class Object : public std::enable_shared_from_this<Object> {
  public:
    explicit Object(ObjectKind kind) : kind_(kind) {}
    virtual ~Object() = default;
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

    ObjectKind kind() const { return kind_; }

    /// The object as one that threads can wait for, or null.
    virtual WaitableObject* AsWaitable() noexcept { return nullptr; }

    /// The last handle to the object was closed; threads may still refer to it.
    virtual void OnLastHandleClosed() noexcept {}

  private:
    friend class HandleTable;
    const ObjectKind kind_;
    unsigned openHandles_ = 0;  // guarded by the table's allocation lock
};

/// A new handle to `object`. Null without memory; the last error is then ERROR_NOT_ENOUGH_MEMORY.
HANDLE OpenHandle(std::shared_ptr<Object> object) noexcept;

/// The object of an open handle, else null (the last error is left alone). GetCurrentThread's pseudo handle
/// gives the calling thread's object.
std::shared_ptr<Object> ReferenceHandle(HANDLE handle) noexcept;

/// As ReferenceHandle, when the object is of that kind; otherwise null.
template <class Type>
std::shared_ptr<Type> ReferenceHandleAs(HANDLE handle, ObjectKind kind) noexcept {
    std::shared_ptr<Object> object = ReferenceHandle(handle);
    if (object == nullptr || object->kind() != kind) return nullptr;
    return std::static_pointer_cast<Type>(std::move(object));
}

/// Closes the handle; false when it is not open. Counts no platform call, unlike CloseHandle.
bool CloseOpenHandle(HANDLE handle) noexcept;

/// Open handles to objects of a kind.
int CountHandles(ObjectKind kind) noexcept;

}  // namespace platform
