// What can be associated with a completion port: sockets of the base provider, and the host's layered
// handles.
//
// Any thread may call. The association lasts as long as the object.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>

#include "platform/kernel/handles.h"

namespace platform {

class CompletionPort;

class FileObject : public Object {
  public:
    using Object::Object;
    ~FileObject() override;

    /// Associates the object with a port; false when it already has one.
    bool Associate(std::shared_ptr<CompletionPort> port, ULONG_PTR key) noexcept;

    bool HasPort() const noexcept;

    /// From now on what succeeds inside its own call queues no packet; this can't be taken back.
    void SkipPortOnSuccess() noexcept { skipsPortOnSuccess_.store(true, std::memory_order_relaxed); }
    bool SkipsPortOnSuccess() const noexcept { return skipsPortOnSuccess_.load(std::memory_order_relaxed); }

    /// Queues a packet to the associated port, if any: `overlapped` and `bytes` come out of
    /// GetQueuedCompletionStatus as they are, `error` (0 or a system error) as its result. The record behind
    /// `overlapped` is not touched. True when a packet was queued.
    bool PostCompletion(OVERLAPPED* overlapped, DWORD bytes, DWORD error) noexcept;

    /// Cancels one request under way, which then completes with ERROR_OPERATION_ABORTED. False when there is
    /// none with that record.
    virtual bool CancelRequest(const OVERLAPPED* overlapped) noexcept {
        static_cast<void>(overlapped);
        return false;
    }

    /// The object itself when the kind can be associated, else null.
    static std::shared_ptr<FileObject> From(std::shared_ptr<Object> object) noexcept;

  private:
    mutable std::mutex mutex_;  // leaf; guards the two fields below
    std::shared_ptr<CompletionPort> port_;
    ULONG_PTR key_ = 0;
    std::atomic<bool> skipsPortOnSuccess_{false};
};

}  // namespace platform
