// The process's idle requests and responses, so that busy sockets don't make and destroy a message with its
// texts and pieces for every send and receive. Last in, first out, at most kPoolLimit idle objects of each
// kind.
//
// Any thread may take and return; an object belongs to one thread in between. The two locks are leaf locks,
// held for the list operation alone: messages are made, released and destroyed outside them.
#pragma once

#include <memory>

#include "messages/analyzer_messages.h"

/// The one pool of the process, made on first use.
class MessagePool {
  public:
    MessagePool() = delete;

    /// A request with a fresh id, default fields and no data, whose further buffers come from `alloc` and all
    /// go back through `release`; null when memory has run out.
    static LSPAnalyzerMessage* GetRequest(BufferAllocFunction alloc, BufferFreeFunction release) noexcept;
    static LSPAnalyzerMessageResponse* GetResponse(BufferAllocFunction alloc,
                                                   BufferFreeFunction release) noexcept;

    /// Takes the object back (releasing its buffers) or destroys it when enough are idle. The pointer becomes
    /// null; null is ignored.
    static void ReturnRequest(LSPAnalyzerMessage*& request) noexcept;
    static void ReturnResponse(LSPAnalyzerMessageResponse*& response) noexcept;
};

/// Destroys the idle messages and the pool's locks, at detach, when no other thread uses the pool; it may be
/// used again afterwards.
void DestroyMessagePool() noexcept;

/// Returns a message to the pool when its holder ends.
struct ReturnToPool {
    void operator()(LSPAnalyzerMessage* request) const noexcept { MessagePool::ReturnRequest(request); }
    void operator()(LSPAnalyzerMessageResponse* response) const noexcept {
        MessagePool::ReturnResponse(response);
    }
};
using PooledRequest = std::unique_ptr<LSPAnalyzerMessage, ReturnToPool>;
using PooledResponse = std::unique_ptr<LSPAnalyzerMessageResponse, ReturnToPool>;

/// From the pool, on the buffer arena; empty when memory has run out.
PooledRequest TakeRequest() noexcept;
PooledResponse TakeResponse() noexcept;
