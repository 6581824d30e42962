// Binding, listening, connecting, ending a connection, and the names of both ends.
#include <algorithm>
#include <cerrno>

#include "platform/tcpip/address.h"
#include "platform/tcpip/error_table.h"
#include "platform/tcpip/operations.h"
#include "platform/tcpip/port_turn.h"
#include "platform/tcpip/reactor.h"
#include "platform/tcpip/routes.h"
#include "platform/tcpip/timed_wait.h"
#include "platform/tcpip/transfer.h"

namespace tcpip {
namespace {

using platform::PlatformCall;

/// How long Windows goes on asking a destination that does not answer.
constexpr DWORD kConnectTimeoutMilliseconds = 21000;

int BindSocket(Socket& socket, const Endpoint& local) {
    std::lock_guard<std::mutex> guard(socket.lock);
    if (socket.bound.load()) return WSAEINVAL;
    const bool ownRules = !socket.kernelRules;
    if (socket.options.reuseAddress) kernel::SetOption(socket.fd(), kernel::Option::ReuseAddress, 1);
    int error = kernel::Bind(socket.fd(), local);
    if (error == EADDRINUSE && ownRules && socket.IsStream() && !socket.options.reuseAddress) {
        // Closed connections that still fade away do not keep a port busy on Windows. The kernel makes that
        // distinction only for sockets that ask to share.
        const PortTurn turn;
        kernel::SetOption(socket.fd(), kernel::Option::ReuseAddress, 1);
        error = kernel::Bind(socket.fd(), local);
        kernel::SetOption(socket.fd(), kernel::Option::ReuseAddress, 0);
    }
    if (error != 0) return WinsockErrorFromErrno(error);
    socket.boundTo = local;
    socket.bound.store(true);
    return 0;
}

int ListenOn(Socket& socket, int backlog) {
    std::lock_guard<std::mutex> guard(socket.lock);
    if (!socket.IsStream()) return WSAEOPNOTSUPP;
    if (socket.RefreshConnectLocked() == State::Connected) return WSAEISCONN;
    if (!socket.bound.load() || socket.state.load() == State::Connecting) return WSAEINVAL;
    const bool ownRules = !socket.kernelRules;
    int error = kernel::Listen(socket.fd(), ownRules ? std::max(backlog, 1) : backlog);
    if (error == EADDRINUSE && ownRules) {
        // The kernel asks once more what keeps the port busy, see BindSocket.
        const PortTurn turn;
        kernel::SetOption(socket.fd(), kernel::Option::ReuseAddress, 1);
        error = kernel::Listen(socket.fd(), std::max(backlog, 1));
        if (error != 0 && !socket.options.reuseAddress)
            kernel::SetOption(socket.fd(), kernel::Option::ReuseAddress, 0);
    }
    if (error != 0) return WinsockErrorFromErrno(error);
    // Its connections shall not keep the port busy after its close, see BindSocket.
    if (ownRules) kernel::SetOption(socket.fd(), kernel::Option::ReuseAddress, 1);
    socket.state.store(State::Listening, std::memory_order_release);
    socket.RecordEventsLocked();
    return 0;
}

/// A connect into the black hole ends by the platform's clock, which the kernel does not know.
int WaitInBlackHole(Socket& socket) {
    for (;;) {
        platform::Deadline deadline;
        {
            std::lock_guard<std::mutex> guard(socket.lock);
            const State now = socket.RefreshConnectLocked();
            if (now == State::Connected) return 0;
            if (now == State::Failed) return socket.connectError;
            deadline = socket.connectDeadline;
        }
        WaitReady(socket.fd(), kernel::kWritable, deadline);
        if (socket.IsClosed()) return WSAEINTR;
    }
}

/// The state and address checks before a connect; the socket is then Connecting. The lock is held.
int BeginConnectLocked(Socket& socket, const Endpoint& peer) {
    switch (socket.RefreshConnectLocked()) {
        case State::Connecting:
            return WSAEALREADY;
        case State::Connected:
            return WSAEISCONN;
        case State::Listening:
            return WSAEINVAL;
        case State::Idle:
        case State::Failed:
            break;
    }
    if (IsUnspecified(peer) || peer.port == 0 || IsMulticast(peer)) return WSAEADDRNOTAVAIL;
    socket.peer = peer;
    socket.connectError = 0;
    socket.connectStarted = false;
    socket.pendingError = 0;
    socket.eventArmed |= FD_CONNECT;
    socket.state.store(State::Connecting, std::memory_order_release);
    return 0;
}

int ConnectDatagrams(Socket& socket, const Endpoint& peer) {
    if (IsUnspecified(peer)) {
        kernel::Unconnect(socket.fd());
        socket.state.store(State::Idle);
        return 0;
    }
    Endpoint target;
    int error = RouteDatagram(socket, peer, &target);
    if (error != 0) return error;
    error = kernel::Connect(socket.fd(), target);
    if (error != 0) return WinsockErrorFromErrno(error);
    std::lock_guard<std::mutex> guard(socket.lock);
    socket.peer = peer;
    socket.bound.store(true);
    socket.FinishConnectLocked(0);
    return 0;
}

int ShutdownSocket(Socket& socket, int how) {
    if (how != SD_RECEIVE && how != SD_SEND && how != SD_BOTH) return WSAEINVAL;
    if (socket.IsStream()) {
        std::lock_guard<std::mutex> guard(socket.lock);
        if (socket.RefreshConnectLocked() != State::Connected) return WSAENOTCONN;
        if (socket.missingContext.load() != MissingContext::None) return WSAENOTCONN;
        const bool again = socket.sendShut.load() || socket.receiveShut.load();
        int error = how != SD_RECEIVE ? socket.ShutSendLocked() : 0;
        // The peer may answer the end of one direction with its own, and then nothing is left to be ended.
        const bool mayBeOver = again || (how == SD_BOTH && error == 0);
        if (error == 0 && how != SD_SEND) error = kernel::Shutdown(socket.fd(), kernel::Direction::Receive);
        if (error != 0 && !(error == ENOTCONN && mayBeOver)) return WinsockErrorFromErrno(error);
    }
    if (how != SD_SEND) socket.receiveShut.store(true);
    if (how != SD_RECEIVE) socket.sendShut.store(true);
    return 0;
}

}  // namespace

int ConnectStream(Socket& socket, const Endpoint& peer, bool mayBlock) {
    Route route;
    bool waits;
    bool again;
    {
        std::lock_guard<std::mutex> guard(socket.lock);
        again = socket.state.load() == State::Failed;
        int error = BeginConnectLocked(socket, peer);
        if (error != 0) return error;
        error = FindRoute(peer, socket.kind, &route);
        waits = mayBlock && !route.blackHole;
        if (error == 0) error = socket.SetKernelMode(!waits);
        if (error != 0) {
            socket.state.store(State::Idle);
            return error;
        }
        socket.bound.store(true);
        if (route.blackHole) socket.connectDeadline = platform::DeadlineAfter(kConnectTimeoutMilliseconds);
    }
    // Without the lock, since it may block; the state keeps everybody else from connecting meanwhile.
    int kernelError = kernel::Connect(socket.fd(), route.target);
    // The kernel wants to be asked once more after a connect that failed while nobody waited for it.
    if (kernelError == ECONNABORTED && again) kernelError = kernel::Connect(socket.fd(), route.target);
    if (kernelError == EINPROGRESS) {
        std::unique_lock<std::mutex> guard(socket.lock);
        socket.connectStarted = true;
        if (mayBlock) {
            guard.unlock();
            return WaitInBlackHole(socket);
        }
        if (route.blackHole && socket.RegisterLocked() == 0) {
            ReactorLookAt(socket.reactorTag, socket.connectDeadline);
        }
        // The reactor may have been told of the end already, and have found nothing started.
        if (socket.eventMask.load() != 0) {
            socket.RefreshConnectLocked();
            socket.RecordEventsLocked();
        }
        return WSAEWOULDBLOCK;
    }
    if (socket.IsClosed()) return WSAEINTR;
    const int error = WinsockErrorFromErrno(kernelError);
    std::lock_guard<std::mutex> guard(socket.lock);
    // A failure that the caller is told needs no second telling.
    if (socket.state.load() == State::Connecting) socket.FinishConnectLocked(error);
    socket.pendingError = 0;
    return error;
}

int WSPAPI TcpipBind(SOCKET s, const sockaddr* name, int namelen, LPINT lpErrno) {
    return RunOnSocket("lower WSPBind", WSAEADDRINUSE, s, lpErrno,
                       [&](PlatformCall&, const SocketUse& socket) {
                           Endpoint local;
                           const int error = ReadAddress(name, namelen, socket->v6, &local);
                           return error != 0 ? error : BindSocket(*socket, local);
                       });
}

int WSPAPI TcpipListen(SOCKET s, int backlog, LPINT lpErrno) {
    return RunOnSocket("lower WSPListen", WSAENOBUFS, s, lpErrno,
                       [&](PlatformCall&, const SocketUse& socket) { return ListenOn(*socket, backlog); });
}

int WSPAPI TcpipConnect(SOCKET s, const sockaddr* name, int namelen, LPWSABUF, LPWSABUF calleeData, LPQOS,
                        LPQOS, LPINT lpErrno) {
    return RunOnSocket(
        "lower WSPConnect", WSAENETUNREACH, s, lpErrno, [&](PlatformCall&, const SocketUse& socket) {
            Endpoint peer;
            const int error = ReadAddress(name, namelen, socket->v6, &peer);
            if (error != 0) return error;
            // Data with a connect is unknown to these protocols: nothing is sent, nothing comes back.
            if (calleeData != nullptr) calleeData->len = 0;
            return socket->IsStream() ? ConnectStream(*socket, peer, !socket->nonBlocking.load())
                                      : ConnectDatagrams(*socket, peer);
        });
}

int WSPAPI TcpipShutdown(SOCKET s, int how, LPINT lpErrno) {
    return RunOnSocket("lower WSPShutdown", WSAENETDOWN, s, lpErrno,
                       [&](PlatformCall&, const SocketUse& socket) { return ShutdownSocket(*socket, how); });
}

int WSPAPI TcpipSendDisconnect(SOCKET s, LPWSABUF data, LPINT lpErrno) {
    return RunOnSocket("lower WSPSendDisconnect", WSAENETDOWN, s, lpErrno,
                       [&](PlatformCall&, const SocketUse& socket) {
                           if (data != nullptr && data->len > 0) return WSAENOPROTOOPT;
                           return ShutdownSocket(*socket, SD_SEND);
                       });
}

int WSPAPI TcpipRecvDisconnect(SOCKET s, LPWSABUF data, LPINT lpErrno) {
    return RunOnSocket("lower WSPRecvDisconnect", WSAENETDOWN, s, lpErrno,
                       [&](PlatformCall&, const SocketUse& socket) {
                           if (data != nullptr && data->len > 0) return WSAENOPROTOOPT;
                           return ShutdownSocket(*socket, SD_RECEIVE);
                       });
}

int WSPAPI TcpipGetSockName(SOCKET s, sockaddr* name, LPINT namelen, LPINT lpErrno) {
    return RunOnSocket(
        "lower WSPGetSockName", WSAENETDOWN, s, lpErrno, [&](PlatformCall&, const SocketUse& socket) {
            if (!socket->bound.load()) return WSAEINVAL;
            if (socket->missingContext.load() == MissingContext::Accept) return WSAENOTCONN;
            Endpoint local = AnyEndpoint(socket->v6);
            const int error = kernel::LocalName(socket.fd(), &local);
            return error != 0 ? WinsockErrorFromErrno(error) : WriteAddress(local, name, namelen);
        });
}

int WSPAPI TcpipGetPeerName(SOCKET s, sockaddr* name, LPINT namelen, LPINT lpErrno) {
    return RunOnSocket("lower WSPGetPeerName", WSAENETDOWN, s, lpErrno,
                       [&](PlatformCall&, const SocketUse& socket) {
                           std::lock_guard<std::mutex> guard(socket->lock);
                           if (socket->RefreshConnectLocked() != State::Connected) return WSAENOTCONN;
                           if (socket->missingContext.load() != MissingContext::None) return WSAENOTCONN;
                           return WriteAddress(socket->peer, name, namelen);
                       });
}

SOCKET WSPAPI TcpipJoinLeaf(SOCKET s, const sockaddr*, int, LPWSABUF, LPWSABUF, LPQOS, LPQOS, DWORD,
                            LPINT lpErrno) {
    return RunOperation("lower WSPJoinLeaf", WSAENOBUFS, INVALID_SOCKET, lpErrno,
                        [&](PlatformCall&, SOCKET*) {
                            const SocketUse socket(s);
                            return socket ? WSAEOPNOTSUPP : WSAENOTSOCK;
                        });
}

}  // namespace tcpip
