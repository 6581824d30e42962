// An overlapped request from its start to its completion. Requests come from a pool and keep their buffer
// lists' memory, so that a warm process allocates nothing per request.
//
// A request belongs to its starter, then to the queue of a socket (guarded by that socket's lock), then to
// whoever completes it; with a completion routine, to the APC until it has run.
#pragma once

#include <winsock2.h>

#include <ws2spi.h>

#include <memory>
#include <vector>

#include "platform/tcpip/endpoint.h"
#include "platform/tcpip/kernel_socket.h"
#include "platform/tcpip/piece_source.h"

namespace tcpip {

class Socket;

enum class RequestKind { Send, Receive, ReceiveMessage, Accept, Connect };

struct Request {
    Request* next = nullptr;
    RequestKind kind = RequestKind::Send;

    // Who is told, and how.
    std::shared_ptr<Socket> owner;  // the socket that the caller named; its port gets the packet
    WSAOVERLAPPED* overlapped = nullptr;
    LPWSAOVERLAPPED_COMPLETION_ROUTINE routine = nullptr;
    WSATHREADID thread = {};
    bool closeThread = false;  // `thread` was opened for this request

    // What is transferred.
    std::vector<kernel::IoBuffer> buffers;
    std::size_t firstBuffer = 0;          // those before it are done
    std::unique_ptr<PieceSource> source;  // what follows the buffers; null: nothing
    unsigned flags = 0;                   // the kernel seam's
    DWORD transferred = 0;
    bool truncated = false;  // a datagram did not fit
    bool hasTo = false;
    Endpoint to;
    sockaddr* from = nullptr;
    INT* fromLength = nullptr;
    WSAMSG* message = nullptr;
    bool peek = false;
    DWORD disconnectFlags = 0;  // TF_... to be obeyed after the last byte was sent

    // RequestKind::Accept.
    std::shared_ptr<Socket> accepting;
    char* output = nullptr;
    DWORD receiveLength = 0;
    DWORD localLength = 0;
    DWORD remoteLength = 0;

    // What the completion routine is told.
    DWORD routineError = 0;
    DWORD routineFlags = 0;
};

/// First in, first out.
class RequestQueue {
  public:
    bool empty() const { return head_ == nullptr; }
    Request* head() const { return head_; }
    void Push(Request* request);
    Request* Pop();

    /// Takes the first request for which `matches` is true out of the middle; null when there is none.
    template <class Predicate>
    Request* Take(Predicate matches) {
        Request* previous = nullptr;
        for (Request* at = head_; at != nullptr; previous = at, at = at->next) {
            if (!matches(*at)) continue;
            (previous == nullptr ? head_ : previous->next) = at->next;
            if (tail_ == at) tail_ = previous;
            at->next = nullptr;
            return at;
        }
        return nullptr;
    }

  private:
    Request* head_ = nullptr;
    Request* tail_ = nullptr;
};

/// A blank request; null without memory. Any thread, any lock may be held.
Request* AcquireRequest() noexcept;
void ReleaseRequest(Request* request) noexcept;

/// Frees the pooled requests.
void FreeRequests() noexcept;

struct RequestReleaser {
    void operator()(Request* request) const { ReleaseRequest(request); }
};
using RequestPointer = std::unique_ptr<Request, RequestReleaser>;

}  // namespace tcpip
