// WSPSend, WSPSendTo, WSPRecv, WSPRecvFrom and WSPGetOverlappedResult.
#include "platform/tcpip/address.h"
#include "platform/tcpip/operations.h"
#include "platform/tcpip/overlapped.h"
#include "platform/tcpip/transfer.h"

namespace tcpip {
namespace {

using platform::PlatformCall;

/// A socket made without WSA_FLAG_OVERLAPPED ignores what only overlapped ones can do.
bool IsOverlapped(const Socket& socket, const OverlappedCall& call) {
    return call.overlapped != nullptr && socket.overlapped;
}

int Send(PlatformCall& call, const SocketUse& socket, LPWSABUF buffers, DWORD count, LPDWORD sent,
         DWORD flags, const Endpoint* to, const OverlappedCall& overlapped) {
    BufferList list;
    unsigned kernelFlags = 0;
    // An overlapped send on a stream ends with all of its bytes or with an error.
    const bool isWhole = IsOverlapped(*socket, overlapped) && socket->IsStream();
    int error = list.Assign(buffers, count, isWhole ? 0xFFFFFFFF : call.LimitCount(0xFFFFFFFF));
    if (error == 0) error = SendFlags(*socket, flags, &kernelFlags);
    if (error == 0) error = CheckSendState(*socket, to != nullptr);
    Endpoint target;
    if (error == 0 && to != nullptr) error = RouteDatagram(*socket, *to, &target);
    if (error != 0) return error;
    if (!IsOverlapped(*socket, overlapped)) {
        if (sent == nullptr) return WSAEFAULT;
        return SendNow(*socket, list, kernelFlags, to != nullptr ? &target : nullptr, sent);
    }
    RequestPointer request = MakeRequest(socket.pointer(), overlapped, RequestKind::Send);
    if (request == nullptr) return WSAENOBUFS;
    request->buffers.assign(list.data(), list.data() + list.count());
    request->flags = kernelFlags;
    request->hasTo = to != nullptr;
    request->to = target;
    if (to != nullptr) socket->bound.store(true);
    return StartRequest(*socket, kWrite, std::move(request), sent, nullptr);
}

int Receive(PlatformCall& call, const SocketUse& socket, LPWSABUF buffers, DWORD count, LPDWORD received,
            LPDWORD flags, sockaddr* from, LPINT fromLength, const OverlappedCall& overlapped) {
    if (flags == nullptr) return WSAEFAULT;
    if (from != nullptr && (fromLength == nullptr || *fromLength < AddressLength(socket->v6)))
        return WSAEFAULT;
    BufferList list;
    unsigned kernelFlags = 0;
    int error = list.Assign(buffers, count, call.LimitCount(0xFFFFFFFF));
    if (error == 0) error = ReceiveFlags(*socket, *flags, &kernelFlags);
    if (error == 0) error = CheckReceiveState(*socket);
    if (error != 0) return error;
    if (!IsOverlapped(*socket, overlapped)) {
        if (received == nullptr) return WSAEFAULT;
        Endpoint sender;
        const bool wantsSender = from != nullptr && !socket->IsStream();
        error = ReceiveNow(*socket, list, kernelFlags, wantsSender ? &sender : nullptr, received);
        if (error == 0 || error == WSAEMSGSIZE) {
            *flags = (error == WSAEMSGSIZE ? MSG_PARTIAL : 0) |
                     ((kernelFlags & kernel::kOutOfBand) != 0 ? MSG_OOB : 0);
            if (wantsSender) WriteAddress(sender, from, fromLength);
        }
        return error;
    }
    // Urgent data is read by calls that wait for it.
    if ((kernelFlags & kernel::kOutOfBand) != 0) return WSAEOPNOTSUPP;
    RequestPointer request = MakeRequest(socket.pointer(), overlapped, RequestKind::Receive);
    if (request == nullptr) return WSAENOBUFS;
    request->buffers.assign(list.data(), list.data() + list.count());
    request->flags = kernelFlags;
    request->from = from;
    request->fromLength = fromLength;
    error = StartRequest(*socket, kRead, std::move(request), received, flags);
    socket->RearmEvents(FD_READ | FD_OOB);
    return error;
}

}  // namespace

int WSPAPI TcpipSend(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                     LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine,
                     LPWSATHREADID thread, LPINT lpErrno) {
    return RunOnSocket(
        "lower WSPSend", WSAECONNRESET, s, lpErrno, [&](PlatformCall& call, const SocketUse& socket) {
            return Send(call, socket, buffers, count, sent, flags, nullptr, {overlapped, routine, thread});
        });
}

int WSPAPI TcpipSendTo(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags, const sockaddr* to,
                       int toLength, LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine,
                       LPWSATHREADID thread, LPINT lpErrno) {
    return RunOnSocket("lower WSPSendTo", WSAENETUNREACH, s, lpErrno,
                       [&](PlatformCall& call, const SocketUse& socket) {
                           // A connected stream has one destination, whatever the caller names.
                           const bool named = to != nullptr && !socket->IsStream();
                           Endpoint destination;
                           const int error = named ? ReadAddress(to, toLength, socket->v6, &destination) : 0;
                           if (error != 0) return error;
                           return Send(call, socket, buffers, count, sent, flags,
                                       named ? &destination : nullptr, {overlapped, routine, thread});
                       });
}

int WSPAPI TcpipRecv(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                     LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine,
                     LPWSATHREADID thread, LPINT lpErrno) {
    return RunOnSocket("lower WSPRecv", WSAECONNRESET, s, lpErrno,
                       [&](PlatformCall& call, const SocketUse& socket) {
                           return Receive(call, socket, buffers, count, received, flags, nullptr, nullptr,
                                          {overlapped, routine, thread});
                       });
}

int WSPAPI TcpipRecvFrom(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                         sockaddr* from, LPINT fromLength, LPWSAOVERLAPPED overlapped,
                         LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, LPWSATHREADID thread, LPINT lpErrno) {
    return RunOnSocket("lower WSPRecvFrom", WSAECONNRESET, s, lpErrno,
                       [&](PlatformCall& call, const SocketUse& socket) {
                           return Receive(call, socket, buffers, count, received, flags, from, fromLength,
                                          {overlapped, routine, thread});
                       });
}

BOOL WSPAPI TcpipGetOverlappedResult(SOCKET s, LPWSAOVERLAPPED overlapped, LPDWORD transferred, BOOL wait,
                                     LPDWORD flags, LPINT lpErrno) {
    return RunOperation("lower WSPGetOverlappedResult", WSAENETDOWN, FALSE, lpErrno,
                        [&](PlatformCall&, BOOL* result) {
                            if (overlapped == nullptr || transferred == nullptr || flags == nullptr)
                                return WSAEFAULT;
                            // Not kept open for the wait: its close ends the request, and with it the wait.
                            if (!SocketUse(s)) return WSAENOTSOCK;
                            *result = TRUE;
                            return OverlappedResult(overlapped, wait != FALSE, transferred, flags);
                        });
}

}  // namespace tcpip
