// Opens the socket on which one application socket is talked about with the analyzer. It is made through the
// Winsock API and so comes back into the layer like any other; from MarkSocketAsOwn on the layer leaves it
// alone.
#include "relay/channel/spy_socket.h"

#include <winsock2.h>

#include <windows.h>

#include "base/locker.h"
#include "base/trace.h"
#include "messages/message_transport.h"
#include "provider/contexts/socket_context.h"
#include "provider/guarded_sockets.h"
#include "relay/channel/own_socket_options.h"
#include "relay/channel/settings.h"

Atomic<DWORD> SpyConnectTimeout{kSpyConnectTimeout};

namespace {

constexpr DWORD kTransferMilliseconds = 10000;

/// Waits for the connect of a non-blocking socket.
bool WaitForConnect(SOCKET s, const SocketContext* context) {
    fd_set writable;
    FD_ZERO(&writable);
    FD_SET(s, &writable);
    fd_set failed = writable;
    timeval timeout{};
    timeout.tv_usec = static_cast<decltype(timeout.tv_usec)>(SpyConnectTimeout);

    const int ready = GuardedSelect(nullptr, &writable, &failed, &timeout);
    if (ready == 0 || ready == SOCKET_ERROR) {
        Trace("ERROR:Failed to select on a connection request to lsp server:%d. #Details: %s #\n", ready,
              DescribeContext(context).c_str());
        if (ready == 0) SpyConnectTimeout = kSpyConnectTimeoutAfterFailure;
        return false;
    }
    if (!FD_ISSET(s, &writable)) {
        Trace("ERROR:Failed to connect to lsp server. Unexpected error. Socket not found.\n");
        return false;
    }
    SpyConnectTimeout = kSpyConnectTimeout;
    return true;
}

/// Whether the socket's own name is its peer's: with nobody listening there, and a port of the range that
/// sockets get theirs from, the system may connect it so. It would ask itself, and keep the port from the
/// analyzer.
bool IsConnectedToItself(SOCKET s, const sockaddr_in& peer) {
    sockaddr_in own{};
    int length = sizeof(own);
    return SafeGetSockName(s, reinterpret_cast<sockaddr*>(&own), &length) == 0 &&
           own.sin_port == peer.sin_port && own.sin_addr.s_addr == peer.sin_addr.s_addr;
}

bool ConnectToAnalyzer(SOCKET s, const SocketContext* context) {
    sockaddr_in analyzer{};
    analyzer.sin_family = AF_INET;
    analyzer.sin_port = htons(static_cast<u_short>(GetRelayPort()));
    analyzer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);

    u_long nonBlocking = 1;
    // A connect that can't be limited in time isn't made.
    const bool limited = SafeIoctlSocket(s, static_cast<LONG>(FIONBIO), &nonBlocking) == 0;
    if (!limited || SafeConnect(s, reinterpret_cast<const sockaddr*>(&analyzer), sizeof(analyzer)) != 0) {
        const int error = WSAGetLastError();
        if (!limited || error != WSAEWOULDBLOCK) {
            Trace("ERROR:Failed to connect to lsp server:%d.#Details: %s #\n", error,
                  DescribeContext(context).c_str());
            return false;
        }
        if (!WaitForConnect(s, context)) return false;
    }
    if (IsConnectedToItself(s, analyzer)) {
        Trace("ERROR:Failed to connect to lsp server. The socket was connected to itself.#Details: %s #\n",
              DescribeContext(context).c_str());
        const linger hard = {1, 0};
        SetOption(s, SOL_SOCKET, SO_LINGER, hard);
        return false;
    }

    nonBlocking = 0;
    const int result = SafeIoctlSocket(s, static_cast<LONG>(FIONBIO), &nonBlocking);
    if (result != 0) {
        Trace("ERROR:Failed to set spy socket to non blocking. Error = %d\n", result);
        return false;
    }
    return true;
}

}  // namespace

bool ConnectSpySocket(SocketContext* context) {
    CloseSpySocket(context);
    const SOCKET s = SafeWSASocket(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED);
    if (s == INVALID_SOCKET) {
        const int error = WSAGetLastError();
        Trace("ERROR:Failed to create socket for connecting to lsp server:%d. #Details: %s #\n", error,
              DescribeContext(context).c_str());
        return false;
    }
    context->SpySocket = s;
    PrepareForTraffic(s);
    MarkSocketAsOwn(s, 0);
    if (!ConnectToAnalyzer(s, context)) {
        CloseSpySocket(context);
        return false;
    }
    SetOption(s, SOL_SOCKET, SO_SNDTIMEO, kTransferMilliseconds);
    SetOption(s, SOL_SOCKET, SO_RCVTIMEO, kTransferMilliseconds);
    return true;
}

void CloseSpySocket(SocketContext* context) {
    SafeCloseSocket(context->SpySocket.Exchange(INVALID_SOCKET));
}

void InterruptSpySocket(const SocketContext* context) {
    // Nobody closes a socket of the layer's meanwhile: one that the context still has is this one.
    const Locker lock(SocketCreateCloseLock);
    SafeShutdown(context->SpySocket, SD_RECEIVE);
}
