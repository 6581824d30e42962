// See message_pool.h.
#include "messages/message_pool.h"

#include <new>

#include "base/locker.h"
#include "base/process_object.h"
#include "messages/buffer_arena.h"
#include "messages/message_limits.h"

namespace {

/// Idle messages of one kind.
template <typename Message>
class FreeList {
  public:
    FreeList() = default;
    FreeList(const FreeList&) = delete;
    FreeList& operator=(const FreeList&) = delete;
    ~FreeList() {
        for (std::uint32_t index = 0; index < count_; ++index)
            delete idle_[index];
    }

    /// The message returned last; null when none is idle.
    Message* Pop() {
        Locker hold(lock_);
        return count_ != 0 ? idle_[--count_] : nullptr;
    }

    /// False when the list is full.
    bool Push(Message* message) {
        Locker hold(lock_);
        if (count_ >= kPoolLimit) return false;
        idle_[count_++] = message;
        return true;
    }

  private:
    OwnedCriticalSection lock_;
    std::uint32_t count_ QX_GUARDED_BY(lock_) = 0;
    Message* idle_[kPoolLimit] QX_GUARDED_BY(lock_);
};

struct Pool {
    FreeList<LSPAnalyzerMessage> requests;
    FreeList<LSPAnalyzerMessageResponse> responses;
};

ProcessObject<Pool> ThePool;

template <typename Message>
Message* Take(FreeList<Message>& list, BufferAllocFunction alloc, BufferFreeFunction release) noexcept {
    Message* idle = list.Pop();
    try {
        if (idle == nullptr) return new Message(alloc, release);
        // An idle message owns no memory, so the functions can change here; all it gets from now on matches.
        idle->AllocFunction = alloc;
        idle->FreeFunction = release;
        idle->HeaderSize = kFrameHeaderSize;
        idle->ResetHeader();
        idle->ResetFields();
        return idle;
    } catch (...) {
        delete idle;
        return nullptr;
    }
}

template <typename Message>
void Return(FreeList<Message>& list, Message*& message) noexcept {
    if (message == nullptr) return;
    message->ReleaseBuffers();
    if (!list.Push(message)) delete message;
    message = nullptr;
}

}  // namespace

LSPAnalyzerMessage* MessagePool::GetRequest(BufferAllocFunction alloc, BufferFreeFunction release) noexcept {
    return Take(ThePool.Get().requests, alloc, release);
}

LSPAnalyzerMessageResponse* MessagePool::GetResponse(BufferAllocFunction alloc,
                                                     BufferFreeFunction release) noexcept {
    return Take(ThePool.Get().responses, alloc, release);
}

void MessagePool::ReturnRequest(LSPAnalyzerMessage*& request) noexcept {
    Return(ThePool.Get().requests, request);
}

void MessagePool::ReturnResponse(LSPAnalyzerMessageResponse*& response) noexcept {
    Return(ThePool.Get().responses, response);
}

void DestroyMessagePool() noexcept {
    ThePool.Destroy();
}

PooledRequest TakeRequest() noexcept {
    return PooledRequest(MessagePool::GetRequest(ArenaAlloc, ArenaFree));
}

PooledResponse TakeResponse() noexcept {
    return PooledResponse(MessagePool::GetResponse(ArenaAlloc, ArenaFree));
}
