// The pool never shrinks before the last clean-up: as many requests exist as were once under way together.
#include "platform/tcpip/request.h"

#include <mutex>
#include <new>

#include "platform/tcpip/socket.h"

namespace tcpip {
namespace {

std::mutex Lock;  // leaf; guards FreeList
Request* FreeList = nullptr;

/// Frees what was released after the last clean-up, when the module goes.
struct PoolEnd {
    ~PoolEnd() { FreeRequests(); }
} EndOfPool;

}  // namespace

void RequestQueue::Push(Request* request) {
    request->next = nullptr;
    (head_ == nullptr ? head_ : tail_->next) = request;
    tail_ = request;
}

Request* RequestQueue::Pop() {
    Request* request = head_;
    head_ = request->next;
    if (head_ == nullptr) tail_ = nullptr;
    request->next = nullptr;
    return request;
}

Request* AcquireRequest() noexcept {
    {
        std::lock_guard<std::mutex> guard(Lock);
        if (FreeList != nullptr) {
            Request* request = FreeList;
            FreeList = request->next;
            request->next = nullptr;
            return request;
        }
    }
    return new (std::nothrow) Request;
}

void ReleaseRequest(Request* request) noexcept {
    std::vector<kernel::IoBuffer> buffers = std::move(request->buffers);
    buffers.clear();
    // Dropping the references may end a socket, which must not happen inside the pool's lock.
    *request = Request();
    request->buffers = std::move(buffers);
    std::lock_guard<std::mutex> guard(Lock);
    request->next = FreeList;
    FreeList = request;
}

void FreeRequests() noexcept {
    std::lock_guard<std::mutex> guard(Lock);
    while (FreeList != nullptr) {
        Request* next = FreeList->next;
        delete FreeList;
        FreeList = next;
    }
}

}  // namespace tcpip
