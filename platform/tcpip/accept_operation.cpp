// WSPAccept: taking a connection, asking the application whether it wants it, and the socket that it becomes.
#include <cerrno>
#include <utility>

#include "platform/tcpip/address.h"
#include "platform/tcpip/error_table.h"
#include "platform/tcpip/operations.h"
#include "platform/tcpip/timed_wait.h"

namespace tcpip {
namespace {

using platform::PlatformCall;

/// Takes a connection, waiting as the listener says.
int TakeConnection(Socket& listener, int* fd, Endpoint* peer) {
    {
        std::lock_guard<std::mutex> guard(listener.lock);
        if (listener.deferredFd >= 0) {
            *fd = std::exchange(listener.deferredFd, -1);
            *peer = listener.deferredPeer;
            return 0;
        }
    }
    const bool nonBlocking = listener.nonBlocking.load();
    if (nonBlocking) {
        const int modeError = listener.SetKernelMode(true);
        if (modeError != 0) return modeError;
    }
    for (;;) {
        int error = 0;
        *fd = kernel::Accept(listener.fd(), false, peer, &error);
        if (listener.IsClosed()) {
            if (*fd >= 0) kernel::Close(*fd);
            return WSAEINTR;
        }
        if (*fd >= 0) return 0;
        if (error == ECONNABORTED) continue;
        if (error != EAGAIN || nonBlocking) return WinsockErrorFromErrno(error);
        // The kernel's mode stays non-blocking once a request was parked here, so this caller waits by
        // itself.
        error = WaitReady(listener.fd(), kernel::kReadable, platform::kNoDeadline);
        if (error != 0) return error;
    }
}

/// Asks the application whether it wants the connection. 0, WSATRY_AGAIN or WSAECONNREFUSED.
int AskCondition(Socket& listener, const Endpoint& peer, int fd, LPCONDITIONPROC condition,
                 DWORD_PTR callbackData) {
    sockaddr_storage callerName = {}, calleeName = {};
    int callerLength = sizeof(callerName), calleeLength = sizeof(calleeName);
    Endpoint local = AnyEndpoint(listener.v6);
    kernel::LocalName(fd, &local);
    WriteAddress(peer, reinterpret_cast<sockaddr*>(&callerName), &callerLength);
    WriteAddress(local, reinterpret_cast<sockaddr*>(&calleeName), &calleeLength);
    WSABUF caller = {static_cast<ULONG>(callerLength), reinterpret_cast<CHAR*>(&callerName)};
    WSABUF callee = {static_cast<ULONG>(calleeLength), reinterpret_cast<CHAR*>(&calleeName)};
    WSABUF noData = {0, nullptr};
    GROUP group = 0;
    platform::ProviderBoundary boundary;
    switch (condition(&caller, &noData, nullptr, nullptr, &callee, &noData, &group, callbackData)) {
        case CF_ACCEPT:
            return 0;
        case CF_DEFER:
            return WSATRY_AGAIN;
        default:
            return WSAECONNREFUSED;
    }
}

/// The new socket has the listener's options, mode and events, as the kernel's copy has.
std::shared_ptr<Socket> MakeAccepted(Socket& listener, int fd, const Endpoint& peer) {
    std::shared_ptr<Socket> accepted =
        MakeSocket(listener.info, listener.v6, listener.kind, listener.overlapped, fd);
    if (accepted == nullptr) return nullptr;
    accepted->nonBlocking.store(listener.nonBlocking.load());
    accepted->kernelRules.store(listener.kernelRules.load());
    accepted->sendTimeout.store(listener.sendTimeout.load());
    accepted->receiveTimeout.store(listener.receiveTimeout.load());
    {
        std::lock_guard<std::mutex> guard(listener.lock);
        accepted->options = listener.options;
    }
    std::lock_guard<std::mutex> guard(accepted->lock);
    accepted->peer = peer;
    accepted->bound.store(true);
    accepted->FinishConnectLocked(0);
    return accepted;
}

int AcceptConnection(Socket& listener, sockaddr* name, int* namelen, LPCONDITIONPROC condition,
                     DWORD_PTR callbackData, SOCKET* result) {
    if (!listener.IsStream()) return WSAEOPNOTSUPP;
    if (listener.state.load() != State::Listening) return WSAEINVAL;
    if (name != nullptr && (namelen == nullptr || *namelen < AddressLength(listener.v6))) return WSAEFAULT;
    int fd = -1;
    Endpoint peer;
    int error = TakeConnection(listener, &fd, &peer);
    const bool taken = error == 0;
    if (taken && condition != nullptr) error = AskCondition(listener, peer, fd, condition, callbackData);
    // A connection that is put off has been told already.
    if (error != WSATRY_AGAIN) listener.RearmEvents(FD_ACCEPT);
    if (!taken) return error;
    if (error == WSATRY_AGAIN) {
        std::lock_guard<std::mutex> guard(listener.lock);
        if (listener.deferredFd < 0 && !listener.IsClosed()) {
            listener.deferredFd = fd;
            listener.deferredPeer = peer;
            return error;
        }
    }
    if (error != 0) {
        // A refused caller is told by a reset, not by an orderly end.
        kernel::SetLinger(fd, true, 0);
        kernel::Close(fd);
        return error;
    }
    const std::shared_ptr<Socket> accepted = MakeAccepted(listener, fd, peer);
    if (accepted == nullptr) return WSAENOBUFS;
    if (name != nullptr) WriteAddress(peer, name, namelen);
    error = PublishSocket(accepted, result);
    const LONG mask = listener.eventMask.load() & ~(FD_ACCEPT | FD_CONNECT);
    if (error != 0 || mask == 0) return error;
    EventTarget target;
    {
        std::lock_guard<std::mutex> guard(listener.lock);
        target = listener.eventTarget;
    }
    target.socket = *result;
    SelectEvents(*accepted, target, mask);
    return 0;
}

}  // namespace

SOCKET WSPAPI TcpipAccept(SOCKET s, sockaddr* name, LPINT namelen, LPCONDITIONPROC condition,
                          DWORD_PTR callbackData, LPINT lpErrno) {
    return RunOperation("lower WSPAccept", WSAENOBUFS, INVALID_SOCKET, lpErrno,
                        [&](PlatformCall&, SOCKET* result) {
                            const SocketUse socket(s);
                            if (!socket) return WSAENOTSOCK;
                            return AcceptConnection(*socket, name, namelen, condition, callbackData, result);
                        });
}

}  // namespace tcpip
