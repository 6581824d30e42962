// Overlapped requests: started, parked on their socket, attempted again when the reactor says so, completed
// once.
#pragma once

#include "platform/tcpip/request.h"
#include "platform/tcpip/socket.h"

namespace tcpip {

/// The arguments that every overlapped call shares.
struct OverlappedCall {
    WSAOVERLAPPED* overlapped;
    LPWSAOVERLAPPED_COMPLETION_ROUTINE routine;
    LPWSATHREADID thread;
};

/// A request that completes as `call` says, for `owner`; null without memory or when the thread of a
/// completion routine cannot be named.
RequestPointer MakeRequest(const std::shared_ptr<Socket>& owner, const OverlappedCall& call,
                           RequestKind kind);

/// Starts the request on the socket's direction. 0: it has completed at once, and its completion is
/// delivered (but to a port that is to be left out of it); WSA_IO_PENDING: it will be; anything else: it
/// failed and nothing is delivered. `*bytes` and
/// `*flags` (may be null) are set on success.
int StartRequest(Socket& socket, Direction direction, RequestPointer request, DWORD* bytes, DWORD* flags);

/// Delivers the completion and ends the request. The lock of the queue it came from may be held.
void CompleteRequest(Request* request, int error);

/// No accept waits for this socket any more: it may be given to another. Takes its lock; a listener's may be
/// held.
void ReleaseAccepting(Socket& accepting);

/// An operation that needs no waiting has ended successfully: completes `call` for it.
int CompleteAtOnce(const std::shared_ptr<Socket>& owner, const OverlappedCall& call, DWORD bytes);

enum class Progress { Done, Pending, Moved };

/// Tries to finish the request without waiting. Done: with `*error`. Moved: it waits on another socket now.
/// The lock of its socket is held.
Progress AttemptRequest(Socket& socket, Request* request, int* error);

/// The result of a finished request, or after waiting for it. 0, WSA_IO_INCOMPLETE, or the request's error.
int OverlappedResult(WSAOVERLAPPED* overlapped, bool wait, DWORD* bytes, DWORD* flags);

}  // namespace tcpip
