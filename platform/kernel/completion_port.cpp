// The queue of packets, the threads that wait for one, and the ports' functions.
#include "platform/kernel/completion_port.h"

#include <new>
#include <utility>

#include "platform/kernel/fault_points.h"
#include "platform/kernel/file_object.h"
#include "platform/kernel/last_error.h"

namespace platform {

void CompletionPort::EndWait(Waiter* waiter, Result result) noexcept {
    Parker* const parker = waiter->parker;
    const bool working = waiter->working;
    waiter->result = result;
    waiter->waiting.store(false, std::memory_order_release);
    // A thread that ends its own wait, in the course of the work that it does meanwhile, notices by itself.
    if (parker == &CurrentParker()) return;
    if (working) InterruptIdleWork();
    parker->Unpark();
}

/// The waiter for a packet, off the stack: the calling thread itself if it is one, else the last that came.
CompletionPort::Waiter* CompletionPort::TakeWaiter() noexcept {
    if (waiters_ == nullptr) return nullptr;
    Parker* const self = &CurrentParker();
    Waiter** link = &waiters_;
    while (*link != nullptr && (*link)->parker != self)
        link = &(*link)->below;
    if (*link == nullptr) link = &waiters_;
    Waiter* const taken = *link;
    *link = taken->below;
    return taken;
}

bool CompletionPort::Post(const CompletionPacket& packet) noexcept {
    std::unique_lock<std::mutex> lock(mutex_);
    if (closed_) return false;
    if (Waiter* const waiter = TakeWaiter(); waiter != nullptr) {
        lock.unlock();
        waiter->packet = packet;
        EndWait(waiter, Result::kPacket);
        return true;
    }
    try {
        packets_.push_back(packet);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

/// False when somebody else has taken the waiter off the stack already and is about to end its wait.
bool CompletionPort::RemoveWaiter(Waiter* waiter) noexcept {
    const std::lock_guard<std::mutex> holder(mutex_);
    Waiter** link = &waiters_;
    while (*link != nullptr && *link != waiter)
        link = &(*link)->below;
    if (*link == nullptr) return false;
    *link = waiter->below;
    return true;
}

/// Ends the wait at once when there is a packet, or nothing to wait for; else puts the waiter on the stack.
bool CompletionPort::EndedAtOnce(Waiter* waiter, Deadline deadline) noexcept {
    const std::lock_guard<std::mutex> holder(mutex_);
    if (!packets_.empty()) {
        waiter->packet = packets_.front();
        packets_.pop_front();
        return true;
    }
    waiter->result = closed_ ? Result::kClosed : Result::kTimeout;
    if (closed_ || HasPassed(deadline)) return true;
    waiter->below = waiters_;
    waiters_ = waiter;
    return false;
}

void CompletionPort::ParkUntilPacket(Waiter* waiter, Deadline deadline) noexcept {
    bool ended = !waiter->waiting.load(std::memory_order_acquire);
    while (!ended) {
        const bool unparked = CurrentThreadIsTerminated() || waiter->parker->ParkUntil(deadline);
        ended = !waiter->waiting.load(std::memory_order_acquire);
        if (ended || (unparked && !CurrentThreadIsTerminated())) continue;
        if (RemoveWaiter(waiter)) {
            waiter->result = unparked ? Result::kTerminated : Result::kTimeout;
            break;
        }
        // Its packet is on the way and must not be lost.
        deadline = kNoDeadline;
    }
}

/// Works until the wait has ended, its time is up, or the work is withdrawn.
void CompletionPort::WorkUntilPacket(Waiter* waiter, Deadline deadline, const IdleWorkUse& work) noexcept {
    SetWorking(waiter, true);
    while (waiter->waiting.load(std::memory_order_acquire) && work.IsOffered() && !HasPassed(deadline) &&
           !CurrentThreadIsTerminated()) {
        work->Run(deadline);
    }
    SetWorking(waiter, false);
}

/// Says on the stack what the thread does; without effect once it has been taken off.
void CompletionPort::SetWorking(Waiter* waiter, bool working) noexcept {
    const std::lock_guard<std::mutex> holder(mutex_);
    Waiter* at = waiters_;
    while (at != nullptr && at != waiter)
        at = at->below;
    if (at != nullptr) at->working = working;
}

/// Waits for the end of a wait that is on the stack.
void CompletionPort::AwaitPacket(Waiter* waiter, Deadline deadline) noexcept {
    {
        const IdleWorkUse work;
        if (work) WorkUntilPacket(waiter, deadline, work);
    }
    ParkUntilPacket(waiter, deadline);
}

CompletionPort::Result CompletionPort::Get(CompletionPacket* packet, Deadline deadline) noexcept {
    Waiter self{&CurrentParker()};
    if (!EndedAtOnce(&self, deadline)) AwaitPacket(&self, deadline);
    if (self.result == Result::kPacket) *packet = self.packet;
    return self.result;
}

void CompletionPort::OnLastHandleClosed() noexcept {
    Waiter* waiter;
    {
        const std::lock_guard<std::mutex> holder(mutex_);
        closed_ = true;
        packets_.clear();
        waiter = std::exchange(waiters_, nullptr);
    }
    while (waiter != nullptr) {
        Waiter* const below = waiter->below;
        EndWait(waiter, Result::kClosed);
        waiter = below;
    }
}

FileObject::~FileObject() = default;

bool FileObject::Associate(std::shared_ptr<CompletionPort> port, ULONG_PTR key) noexcept {
    const std::lock_guard<std::mutex> holder(mutex_);
    if (port_ != nullptr) return false;
    port_ = std::move(port);
    key_ = key;
    return true;
}

bool FileObject::HasPort() const noexcept {
    const std::lock_guard<std::mutex> holder(mutex_);
    return port_ != nullptr;
}

bool FileObject::PostCompletion(OVERLAPPED* overlapped, DWORD bytes, DWORD error) noexcept {
    std::shared_ptr<CompletionPort> port;
    ULONG_PTR key;
    {
        const std::lock_guard<std::mutex> holder(mutex_);
        port = port_;
        key = key_;
    }
    return port != nullptr && port->Post({overlapped, key, bytes, error});
}

std::shared_ptr<FileObject> FileObject::From(std::shared_ptr<Object> object) noexcept {
    return std::dynamic_pointer_cast<FileObject>(std::move(object));
}

namespace {

HANDLE MakePort() noexcept {
    try {
        return OpenHandle(std::make_shared<CompletionPort>());
    } catch (const std::bad_alloc&) {
        return Fail<HANDLE>(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    }
}

}  // namespace

}  // namespace platform

using platform::CompletionPacket;
using platform::CompletionPort;
using platform::Fail;
using platform::FileObject;
using platform::ObjectKind;
using platform::PlatformCall;
using platform::ReferenceHandleAs;

BOOL CancelIoEx(HANDLE file, LPOVERLAPPED overlapped) {
    PlatformCall call("CancelIoEx", ERROR_NOT_FOUND);
    if (call.Fails()) return FALSE;
    const std::shared_ptr<FileObject> object = FileObject::From(platform::ReferenceHandle(file));
    if (object != nullptr && object->CancelRequest(overlapped)) return TRUE;
    SetLastError(object != nullptr ? ERROR_NOT_FOUND : ERROR_INVALID_HANDLE);
    return FALSE;
}

HANDLE CreateIoCompletionPort(HANDLE file, HANDLE existingPort, ULONG_PTR key, DWORD) {
    PlatformCall call("CreateIoCompletionPort", ERROR_NO_SYSTEM_RESOURCES);
    if (call.Fails()) return nullptr;
    if (file == INVALID_HANDLE_VALUE) {
        return existingPort == nullptr ? platform::MakePort()
                                       : Fail<HANDLE>(ERROR_INVALID_PARAMETER, nullptr);
    }
    const std::shared_ptr<FileObject> fileObject = FileObject::From(platform::ReferenceHandle(file));
    if (fileObject == nullptr) return Fail<HANDLE>(ERROR_INVALID_HANDLE, nullptr);
    const HANDLE port = existingPort != nullptr ? existingPort : platform::MakePort();
    if (port == nullptr) return nullptr;
    std::shared_ptr<CompletionPort> object =
        ReferenceHandleAs<CompletionPort>(port, ObjectKind::kCompletionPort);
    if (object == nullptr) return Fail<HANDLE>(ERROR_INVALID_HANDLE, nullptr);
    if (fileObject->Associate(std::move(object), key)) return port;
    if (existingPort == nullptr) platform::CloseOpenHandle(port);
    return Fail<HANDLE>(ERROR_INVALID_PARAMETER, nullptr);
}

BOOL GetQueuedCompletionStatus(HANDLE port, LPDWORD bytes, PULONG_PTR key, LPOVERLAPPED* overlapped,
                               DWORD milliseconds) {
    PlatformCall call("GetQueuedCompletionStatus", ERROR_INVALID_HANDLE);
    *overlapped = nullptr;
    if (call.Fails()) return FALSE;
    const auto object = ReferenceHandleAs<CompletionPort>(port, ObjectKind::kCompletionPort);
    if (object == nullptr) return Fail(ERROR_INVALID_HANDLE);
    CompletionPacket packet;
    switch (object->Get(&packet, platform::DeadlineAfter(milliseconds))) {
        case CompletionPort::Result::kPacket:
            break;
        case CompletionPort::Result::kTimeout:
            return Fail(WAIT_TIMEOUT);
        case CompletionPort::Result::kClosed:
            return Fail(ERROR_ABANDONED_WAIT_0);
        case CompletionPort::Result::kTerminated:
            return Fail(ERROR_OPERATION_ABORTED);
    }
    *bytes = packet.bytes;
    *key = packet.key;
    *overlapped = packet.overlapped;
    return packet.error == 0 ? TRUE : Fail(packet.error);
}

// That the event of a file handle itself is not set makes no difference here: such handles have none.
BOOL SetFileCompletionNotificationModes(HANDLE file, UCHAR flags) {
    PlatformCall call("SetFileCompletionNotificationModes", ERROR_INVALID_FUNCTION);
    if (call.Fails()) return FALSE;
    if (call.IsIgnored()) return TRUE;
    if ((flags & ~(FILE_SKIP_COMPLETION_PORT_ON_SUCCESS | FILE_SKIP_SET_EVENT_ON_HANDLE)) != 0)
        return Fail(ERROR_INVALID_PARAMETER);
    const std::shared_ptr<FileObject> object = FileObject::From(platform::ReferenceHandle(file));
    if (object == nullptr) return Fail(ERROR_INVALID_HANDLE);
    if ((flags & FILE_SKIP_COMPLETION_PORT_ON_SUCCESS) != 0) object->SkipPortOnSuccess();
    return TRUE;
}

BOOL PostQueuedCompletionStatus(HANDLE port, DWORD bytes, ULONG_PTR key, LPOVERLAPPED overlapped) {
    PlatformCall call("PostQueuedCompletionStatus", ERROR_NO_SYSTEM_RESOURCES);
    if (call.Fails()) return FALSE;
    const auto object = ReferenceHandleAs<CompletionPort>(port, ObjectKind::kCompletionPort);
    if (object == nullptr) return Fail(ERROR_INVALID_HANDLE);
    return object->Post({overlapped, key, bytes, 0}) ? TRUE : Fail(ERROR_NO_SYSTEM_RESOURCES);
}
