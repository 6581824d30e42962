// Attempts at overlapped requests: what can be done of one without waiting, with the socket's lock held.
#include <mswsock.h>

#include <cerrno>

#include "platform/tcpip/address.h"
#include "platform/tcpip/error_table.h"
#include "platform/tcpip/overlapped.h"
#include "platform/tcpip/transfer_steps.h"

namespace tcpip {
namespace {

/// For a send that was queued before a shutdown: it waits until the send has ended, so the peer it is that
/// broke the pipe.
int QueuedSendError(Socket& socket, int error) {
    if (!socket.shutWhenSent) return SendError(socket, error);
    socket.NoteReset(error);
    return WinsockErrorFromErrno(error);
}

/// Makes the next piece of the request's source its buffers; false when there is none, or with `*error`.
bool TakeNextPiece(Request* request, int* error) {
    if (request->source == nullptr) return false;
    kernel::IoBuffer piece;
    *error = request->source->Next(&piece);
    if (*error != 0 || piece.size == 0) return false;
    request->buffers.assign(1, piece);
    request->firstBuffer = 0;
    return true;
}

Progress AttemptSend(Socket& socket, Request* request, int* error) {
    const auto hasBuffers = [request] { return request->firstBuffer < request->buffers.size(); };
    bool more = request->source == nullptr || hasBuffers() || TakeNextPiece(request, error);
    while (more) {
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
        more = hasBuffers() || TakeNextPiece(request, error);
    }
    if (*error == 0) *error = socket.DisconnectLocked(request->disconnectFlags);
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

}  // namespace

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
