// System calls are counted here: a blocking transfer without a time-out is the kernel's own blocking call,
// one with a time-out waits by poll only when the data can be expected to be missing.
#include "platform/tcpip/transfer.h"

#include <mswsock.h>

#include <algorithm>
#include <cerrno>

#include "platform/tcpip/address.h"
#include "platform/tcpip/error_table.h"
#include "platform/tcpip/overlapped.h"
#include "platform/tcpip/routes.h"
#include "platform/tcpip/timed_wait.h"

namespace tcpip {
namespace {

constexpr DWORD kPushImmediate =
    0x20;  // MSG_PUSH_IMMEDIATE: a receive need not wait for more; it never does here

int SendError(Socket& socket, int error) {
    if (error == EPIPE && socket.sendShut.load()) return WSAESHUTDOWN;
    if (error == EDESTADDRREQ) return WSAENOTCONN;
    socket.NoteReset(error);
    return WinsockErrorFromErrno(error);
}

/// For a send that was queued before a shutdown: it waits until the send has ended, so the peer it is that
/// broke the pipe.
int QueuedSendError(Socket& socket, int error) {
    if (!socket.shutWhenSent) return SendError(socket, error);
    socket.NoteReset(error);
    return WinsockErrorFromErrno(error);
}

int ReceiveError(Socket& socket, const kernel::Transfer& transfer, unsigned flags) {
    // Without urgent data the kernel fails at once, where Windows waits for some.
    if (transfer.error == EINVAL && (flags & kernel::kOutOfBand) != 0) return WSAEWOULDBLOCK;
    if (transfer.error == ECONNREFUSED && !socket.IsStream()) return WSAECONNRESET;
    socket.NoteReset(transfer.error);
    if (transfer.error == 0 && transfer.bytes == 0 && socket.connectionReset.load()) return WSAECONNRESET;
    return WinsockErrorFromErrno(transfer.error);
}

/// A send that reports an unreachable peer on behalf of an earlier datagram: the next receive tells it, as on
/// Windows, and this datagram goes out.
kernel::Transfer SendOnce(Socket& socket, const kernel::IoBuffer* buffers, std::size_t count, unsigned flags,
                          const Endpoint* to) {
    kernel::Transfer transfer = kernel::Send(socket.fd(), buffers, count, flags, to);
    if (transfer.error == ECONNREFUSED && !socket.IsStream()) {
        socket.resetPending.store(true);
        transfer = kernel::Send(socket.fd(), buffers, count, flags, to);
    }
    return transfer;
}

/// An empty receive on a stream is a question whether there is data, which the kernel would not wait for.
bool NothingReadable(const Socket& socket) {
    kernel::PollEntry entry = {socket.fd(), static_cast<short>(kernel::kReadable), 0};
    int error = 0;
    return kernel::Poll(&entry, 1, 0, &error) == 0;
}

/// Moves past `bytes` of the list; done pieces are skipped, the first piece left is shortened.
void Advance(std::vector<kernel::IoBuffer>* buffers, std::size_t* first, std::size_t bytes) {
    while (*first < buffers->size() && bytes >= (*buffers)[*first].size) {
        bytes -= (*buffers)[*first].size;
        ++*first;
    }
    if (bytes == 0) return;
    kernel::IoBuffer& piece = (*buffers)[*first];
    piece.data = static_cast<char*>(piece.data) + bytes;
    piece.size -= bytes;
}

void ObeyDisconnectFlags(Socket& socket, DWORD flags) {
    if ((flags & (TF_DISCONNECT | TF_REUSE_SOCKET)) == 0) return;
    kernel::Shutdown(socket.fd(), kernel::Direction::Send);
    socket.sendShut.store(true);
}

Progress AttemptSend(Socket& socket, Request* request, int* error) {
    do {
        const std::size_t left = request->buffers.size() - request->firstBuffer;
        const kernel::Transfer transfer =
            SendOnce(socket, request->buffers.data() + request->firstBuffer, left,
                     request->flags | kernel::kDontWait, request->hasTo ? &request->to : nullptr);
        if (transfer.error == EAGAIN) return Progress::Pending;
        *error = QueuedSendError(socket, transfer.error);
        if (*error != 0) return Progress::Done;
        request->transferred += static_cast<DWORD>(transfer.bytes);
        if (!socket.IsStream()) return Progress::Done;
        Advance(&request->buffers, &request->firstBuffer, transfer.bytes);
    } while (request->firstBuffer < request->buffers.size());
    ObeyDisconnectFlags(socket, request->disconnectFlags);
    return Progress::Done;
}

/// Gives the sender's address to whoever asked for it.
void StoreSender(Socket& socket, Request* request, const Endpoint& from) {
    const Endpoint sender = socket.PublicAddressLocked(from);
    if (request->message != nullptr) {
        if (request->message->name != nullptr)
            WriteAddress(sender, request->message->name, &request->message->namelen);
    } else if (request->from != nullptr) {
        WriteAddress(sender, request->from, request->fromLength);
    }
}

Progress AttemptReceive(Socket& socket, Request* request, int* error) {
    if (socket.resetPending.exchange(false)) {
        *error = WSAECONNRESET;
        return Progress::Done;
    }
    const bool wantsSender = !socket.IsStream() && (request->from != nullptr || request->message != nullptr);
    do {
        const std::size_t left = request->buffers.size() - request->firstBuffer;
        const kernel::IoBuffer* buffers = request->buffers.data() + request->firstBuffer;
        const bool empty = left == 0 || (left == 1 && buffers->size == 0);
        if (socket.IsStream() && empty && NothingReadable(socket)) return Progress::Pending;
        Endpoint from = AnyEndpoint(socket.v6);
        const kernel::Transfer transfer = kernel::Receive(
            socket.fd(), buffers, left, request->flags | kernel::kDontWait | socket.KindFlags(),
            wantsSender ? &from : nullptr);
        *error = ReceiveError(socket, transfer, request->flags);
        if (*error == WSAEWOULDBLOCK) return Progress::Pending;
        if (*error != 0) return Progress::Done;
        request->transferred += static_cast<DWORD>(transfer.bytes);
        request->truncated = transfer.truncated;
        if (wantsSender) StoreSender(socket, request, from);
        if (request->message != nullptr) {
            request->message->dwFlags = transfer.truncated ? MSG_TRUNC : 0;
            request->message->Control.len = 0;
        }
        if ((request->flags & kernel::kWaitAll) == 0 || transfer.bytes == 0) return Progress::Done;
        Advance(&request->buffers, &request->firstBuffer, transfer.bytes);
    } while (request->firstBuffer < request->buffers.size());
    return Progress::Done;
}

/// The accepted connection takes the place of the accepting socket's own; the addresses go behind the data.
int AdoptConnection(Socket& listener, Request* request, int fd, const Endpoint& peer) {
    Socket& accepting = *request->accepting;
    std::lock_guard<std::mutex> guard(accepting.lock);
    if (accepting.IsClosed()) {
        kernel::Close(fd);
        return WSA_OPERATION_ABORTED;
    }
    const int error = accepting.ReplaceFdLocked(fd);
    if (error != 0) return error;
    accepting.AssumeKernelMode(false);
    accepting.peer = peer;
    accepting.bound.store(true);
    accepting.missingContext.store(MissingContext::Accept);
    accepting.FinishConnectLocked(0);
    if (request->receiveLength == 0) accepting.acceptListener.reset();
    // A listener on one address and port gives them to all its connections.
    Endpoint local = listener.boundTo;
    if (IsUnspecified(local) || local.port == 0) kernel::LocalName(accepting.fd(), &local);
    int length = static_cast<int>(request->localLength);
    char* output = request->output + request->receiveLength;
    WriteAddress(local, reinterpret_cast<sockaddr*>(output), &length);
    length = static_cast<int>(request->remoteLength);
    WriteAddress(peer, reinterpret_cast<sockaddr*>(output + request->localLength), &length);
    return 0;
}

Progress AttemptAccept(Socket& listener, Request* request, int* error) {
    for (;;) {
        Endpoint peer;
        int kernelError = 0;
        const int fd = kernel::Accept(listener.fd(), false, &peer, &kernelError);
        if (kernelError == EAGAIN) return Progress::Pending;
        // The peer went away while its connection waited to be accepted: that is none of this request's
        // business.
        if (kernelError == ECONNABORTED) continue;
        *error = fd >= 0 ? AdoptConnection(listener, request, fd, peer) : WinsockErrorFromErrno(kernelError);
        return *error == 0 && request->receiveLength > 0 ? Progress::Moved : Progress::Done;
    }
}

Progress AttemptConnect(Socket& socket, Request* request, int* error) {
    if (socket.RefreshConnectLocked() == State::Connecting) return Progress::Pending;
    if (socket.state.load() != State::Connected) {
        *error = socket.connectError != 0 ? socket.connectError : WSAECONNABORTED;
        return Progress::Done;
    }
    socket.missingContext.store(MissingContext::Connect);
    if (request->buffers.empty()) return Progress::Done;
    request->kind = RequestKind::Send;
    return AttemptSend(socket, request, error);
}

platform::Deadline DeadlineOf(const std::atomic<DWORD>& timeout) {
    const DWORD milliseconds = timeout.load(std::memory_order_relaxed);
    return milliseconds == 0 ? platform::kNoDeadline : platform::DeadlineAfter(milliseconds);
}

/// Sends all of a list without the kernel's own blocking, until the deadline.
int SendUntil(Socket& socket, const BufferList& list, unsigned flags, const Endpoint* to,
              platform::Deadline deadline, DWORD* bytes) {
    std::vector<kernel::IoBuffer> buffers(list.data(), list.data() + list.count());
    std::size_t first = 0;
    *bytes = 0;
    for (;;) {
        const kernel::Transfer transfer =
            SendOnce(socket, buffers.data() + first, buffers.size() - first, flags | kernel::kDontWait, to);
        if (transfer.error == EAGAIN) {
            const int error = WaitReady(socket.fd(), kernel::kWritable, deadline);
            if (error != 0) return error;
            if (socket.IsClosed()) return WSAEINTR;
            continue;
        }
        if (transfer.error != 0) return SendError(socket, transfer.error);
        *bytes += static_cast<DWORD>(transfer.bytes);
        Advance(&buffers, &first, transfer.bytes);
        if (!socket.IsStream() || first == buffers.size()) return 0;
    }
}

}  // namespace

int BufferList::Assign(const WSABUF* buffers, DWORD count, DWORD limit) {
    if (buffers == nullptr && count > 0) return WSAEFAULT;
    kernel::IoBuffer* target = inline_;
    if (count > kInline) {
        long_.resize(count);
        target = long_.data();
    }
    count_ = count;
    bytes_ = 0;
    for (DWORD i = 0; i < count; ++i) {
        const std::size_t size = std::min<std::size_t>(buffers[i].len, limit - bytes_);
        target[i] = {buffers[i].buf, size};
        bytes_ += size;
    }
    return 0;
}

void BufferList::Skip(std::size_t bytes) {
    bytes_ -= bytes;
    kernel::IoBuffer* buffers = count_ <= kInline ? inline_ : long_.data();
    for (std::size_t i = 0; i < count_ && bytes > 0; ++i) {
        const std::size_t skipped = std::min(bytes, buffers[i].size);
        buffers[i] = {static_cast<char*>(buffers[i].data) + skipped, buffers[i].size - skipped};
        bytes -= skipped;
    }
}

int SendFlags(const Socket& socket, DWORD flags, unsigned* kernelFlags) {
    if ((flags & ~static_cast<DWORD>(MSG_OOB | MSG_DONTROUTE)) != 0) return WSAEOPNOTSUPP;
    if ((flags & MSG_OOB) != 0 && !socket.IsStream()) return WSAEOPNOTSUPP;
    *kernelFlags = ((flags & MSG_OOB) != 0 ? kernel::kOutOfBand : 0) |
                   ((flags & MSG_DONTROUTE) != 0 ? kernel::kDontRoute : 0);
    return 0;
}

int ReceiveFlags(const Socket& socket, DWORD flags, unsigned* kernelFlags) {
    const DWORD known = MSG_OOB | MSG_PEEK | MSG_WAITALL | MSG_PARTIAL | kPushImmediate;
    if ((flags & ~known) != 0) return WSAEOPNOTSUPP;
    if ((flags & (MSG_OOB | MSG_WAITALL)) != 0 && !socket.IsStream()) return WSAEOPNOTSUPP;
    if ((flags & MSG_WAITALL) != 0 && (flags & (MSG_OOB | MSG_PEEK)) != 0) return WSAEOPNOTSUPP;
    *kernelFlags = ((flags & MSG_OOB) != 0 ? kernel::kOutOfBand : 0) |
                   ((flags & MSG_PEEK) != 0 ? kernel::kPeek : 0) |
                   ((flags & MSG_WAITALL) != 0 ? kernel::kWaitAll : 0);
    return 0;
}

int CheckSendState(Socket& socket, bool hasDestination) {
    if (socket.sendShut.load(std::memory_order_relaxed)) return WSAESHUTDOWN;
    if (!socket.IsStream() && hasDestination) return 0;
    return socket.RefreshConnect() == State::Connected ? 0 : WSAENOTCONN;
}

int CheckReceiveState(Socket& socket) {
    if (socket.receiveShut.load(std::memory_order_relaxed)) return WSAESHUTDOWN;
    if (!socket.IsStream()) return socket.bound.load(std::memory_order_relaxed) ? 0 : WSAEINVAL;
    return socket.RefreshConnect() == State::Connected ? 0 : WSAENOTCONN;
}

int RouteDatagram(Socket& socket, const Endpoint& to, Endpoint* target) {
    if (to.port == 0 && socket.kind == kernel::Kind::Datagram) return WSAEADDRNOTAVAIL;
    if (IsMulticast(to)) {
        std::lock_guard<std::mutex> guard(socket.lock);
        // Multicasts go out through the loopback interface only.
        if (!socket.multicastToLoopback) {
            const int error = kernel::SetMulticastLoopbackInterface(socket.fd(), socket.v6);
            if (error != 0) return WinsockErrorFromErrno(error);
            socket.multicastToLoopback = true;
        }
        *target = to;
        return 0;
    }
    Route route;
    const int error = FindRoute(to, socket.kind, &route);
    if (error != 0) return error;
    if (route.routed && !route.blackHole) socket.RememberRoute(route.target, to);
    *target = route.target;
    return 0;
}

int SendNow(Socket& socket, const BufferList& buffers, unsigned flags, const Endpoint* to, DWORD* bytes) {
    const bool waits = !socket.nonBlocking.load(std::memory_order_relaxed);
    int error;
    if (waits && socket.sendTimeout.load(std::memory_order_relaxed) != 0) {
        error = SendUntil(socket, buffers, flags, to, DeadlineOf(socket.sendTimeout), bytes);
    } else {
        error = waits ? socket.SetKernelMode(false) : 0;
        if (error != 0) return error;
        const kernel::Transfer transfer =
            SendOnce(socket, buffers.data(), buffers.count(), flags | (waits ? 0 : kernel::kDontWait), to);
        error = SendError(socket, transfer.error);
        *bytes = static_cast<DWORD>(transfer.bytes);
        // Only a signal makes a blocking send end before its end; the rest goes out by waiting.
        if (error == 0 && waits && socket.IsStream() && transfer.bytes < buffers.bytes()) {
            DWORD more = 0;
            BufferList rest = buffers;
            rest.Skip(transfer.bytes);
            error = SendUntil(socket, rest, flags, to, platform::kNoDeadline, &more);
            *bytes += more;
        }
    }
    if (error == WSAEWOULDBLOCK) socket.RearmEvents(FD_WRITE);
    if (error == 0 && to != nullptr) socket.bound.store(true, std::memory_order_relaxed);
    return error != 0 && waits && socket.IsClosed() ? WSAEINTR : error;
}

int ReceiveNow(Socket& socket, const BufferList& buffers, unsigned flags, Endpoint* from, DWORD* bytes) {
    if (socket.resetPending.load(std::memory_order_relaxed) && socket.resetPending.exchange(false)) {
        return WSAECONNRESET;
    }
    const bool waits = !socket.nonBlocking.load(std::memory_order_relaxed);
    if (!waits && (flags & kernel::kWaitAll) != 0) return WSAEOPNOTSUPP;
    const bool timed = waits && socket.receiveTimeout.load(std::memory_order_relaxed) != 0;
    const bool urgent = (flags & kernel::kOutOfBand) != 0;
    const bool peeks = socket.IsStream() && buffers.bytes() == 0;  // asks only whether there is data
    const unsigned ready = urgent ? kernel::kPriority : kernel::kReadable;
    const platform::Deadline deadline = timed ? DeadlineOf(socket.receiveTimeout) : platform::kNoDeadline;
    const unsigned kernelFlags = flags | socket.KindFlags();
    int error = 0;
    kernel::Transfer transfer;
    if (waits && !timed && !urgent && !peeks) {
        error = socket.SetKernelMode(false);
        if (error != 0) return error;
        transfer = kernel::Receive(socket.fd(), buffers.data(), buffers.count(), kernelFlags, from);
        error = ReceiveError(socket, transfer, flags);
    } else {
        // A time-out is mostly waited for where an answer is: the data is rarely there at the first look.
        bool waitFirst = waits && !socket.likelyReadable.load(std::memory_order_relaxed);
        for (;;) {
            if (waitFirst) error = WaitReady(socket.fd(), ready, deadline);
            if (error != 0 || (waits && socket.IsClosed())) break;
            waitFirst = waits;
            if (peeks && NothingReadable(socket)) {
                error = WSAEWOULDBLOCK;
            } else {
                transfer = kernel::Receive(socket.fd(), buffers.data(), buffers.count(),
                                           kernelFlags | kernel::kDontWait, from);
                error = ReceiveError(socket, transfer, flags);
            }
            if (error != WSAEWOULDBLOCK || !waits) break;
            error = 0;
        }
    }
    socket.likelyReadable.store(error == 0 && transfer.bytes == buffers.bytes(), std::memory_order_relaxed);
    socket.RearmEvents(FD_READ | FD_OOB);
    if (waits && socket.IsClosed()) return WSAEINTR;
    *bytes = static_cast<DWORD>(transfer.bytes);
    if (error == 0 && from != nullptr) *from = socket.PublicAddress(*from);
    return error == 0 && transfer.truncated ? WSAEMSGSIZE : error;
}

Progress AttemptRequest(Socket& socket, Request* request, int* error) {
    *error = 0;
    switch (request->kind) {
        case RequestKind::Send:
            return AttemptSend(socket, request, error);
        case RequestKind::Receive:
        case RequestKind::ReceiveMessage:
            return AttemptReceive(socket, request, error);
        case RequestKind::Accept:
            return AttemptAccept(socket, request, error);
        case RequestKind::Connect:
            return AttemptConnect(socket, request, error);
    }
    return Progress::Done;
}

}  // namespace tcpip
