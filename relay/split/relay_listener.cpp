// See relay_listener.h.
#include "relay/split/relay_listener.h"

#include <utility>

#include "base/process_object.h"
#include "base/trace.h"
#include "provider/contexts/socket_context.h"
#include "provider/guarded_sockets.h"
#include "relay/channel/own_socket_options.h"
#include "relay/split/closing_sockets.h"
#include "relay/split/relay_connection_table.h"
#include "relay/split/relay_life.h"
#include "relay/split/relay_worker.h"

Atomic<DWORD> RelayListenPort;

namespace {

/// Accepts that fail one after the other for no fault of the peer's: beyond this, a next split or the next
/// second tries again.
constexpr LONG kMostFailures = 16;

struct ListenerState {
    OwnedCriticalSection RelayStartLock QX_ACQUIRED_BEFORE(SocketCreateCloseLock);
    WorkerThread Worker QX_GUARDED_BY(RelayStartLock) = {};
};

ProcessObject<ListenerState> State;

Atomic<LONG> AcceptsPosted;
Atomic<LONG> FailedAccepts;

bool IsTaken(int error) {
    // The second: taken by a program that shares its port with nobody.
    return error == WSAEADDRINUSE || error == WSAEACCES;
}

SOCKET MakeListener() {
    const SOCKET s = SafeWSASocket(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED);
    if (s == INVALID_SOCKET) return s;
    MarkSocketAsOwn(s, 0);
    // Accepted sockets have the listener's options, and not those that they were given before.
    PrepareForTraffic(s);
    return s;
}

/// 0 or the error, traced unless the next port may be tried. Two processes may both be bound to a
/// port on some systems, and learn from listen who has it.
int ListenOn(SOCKET s, DWORD port) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    name.sin_port = htons(static_cast<u_short>(port));
    RelayListenPort = port;
    const bool bound = SafeBind(s, reinterpret_cast<const sockaddr*>(&name), sizeof(name)) == 0;
    if (bound && SafeListen(s, SOMAXCONN) == 0) return 0;
    const int error = WSAGetLastError();
    if (IsTaken(error) && port + 1 < kRelayPortLimit) return error;
    if (bound) {
        Trace("ERROR:Failed to listen to relay connections, error = %d\n", error);
    } else {
        Trace("ERROR:Failed to bind to port %d for lsp relay socket, error = %d\n", static_cast<int>(port),
              error);
    }
    return error;
}

/// A socket that listens on the first port that is free; INVALID_SOCKET when there is none.
SOCKET ListenOnFreePort() {
    for (DWORD port = kFirstRelayPort; port < kRelayPortLimit; ++port) {
        const SOCKET s = MakeListener();
        if (s == INVALID_SOCKET) break;
        const int error = ListenOn(s, port);
        if (error == 0) return s;
        SafeCloseSocket(s);
        if (!IsTaken(error)) break;
    }
    return INVALID_SOCKET;
}

bool StartWorker(WorkerThread* worker) {
    const ThreadStarter starter;
    if (starter.Start(RelayWorker, RelayCompletionPort, worker)) return true;
    Trace("ERROR:Failed to create the thread for accepting relay connections, error = %d\n",
          static_cast<int>(GetLastError()));
    return false;
}

/// Makes everything, or leaves nothing.
bool Start(WorkerThread* worker) {
    const SOCKET s = ListenOnFreePort();
    RelayListenSocket = s;
    if (s != INVALID_SOCKET && AssociateWithRelayCompletionPort(s, 0) && StartWorker(worker)) return true;
    SafeCloseSocket(RelayListenSocket.Exchange(INVALID_SOCKET));
    SafeCloseHandle(RelayCompletionPort.Exchange(nullptr));
    RelayListenPort = kFirstRelayPort;
    return false;
}

/// Hands an accept down; false, traced, when it failed. Its record is the port's on success.
bool Accept(PooledPerIOData record) {
    const SOCKET accepting = record->Socket;
    PostedRequests.Increment();
    int error = WSAECONNRESET;
    // A connection that was reset while it waited says so once.
    while (error == WSAECONNRESET) {
        const BOOL accepted =
            SafeAcceptEx(RelayListenSocket, accepting, record->Buffer.data, 0, kAcceptNameBytes,
                         kAcceptNameBytes, &record->Bytes, &record->Overlapped);
        error = accepted ? 0 : WSAGetLastError();
    }
    if (error == 0 || error == WSA_IO_PENDING || error == WSAEWOULDBLOCK) {
        (void)record.release();
        return true;
    }
    PostedRequests.Decrement();
    Trace("ERROR:Failed to accept the relay socket:%d\n", error);
    return false;
}

}  // namespace

bool StartRelayListener() {
    ListenerState& state = State.Get();
    const Locker lock(state.RelayStartLock);
    if (RelayShutdown) return false;
    return RelayListenSocket != INVALID_SOCKET || Start(&state.Worker);
}

SOCKET PostRelayAccept() {
    SOCKET s = SafeWSASocket(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED);
    if (s == INVALID_SOCKET) {
        Trace("ERROR:Failed to create accept socket: %d\n", WSAGetLastError());
        return INVALID_SOCKET;
    }
    MarkSocketAsOwn(s, 0);
    bool posted = false;
    if (!AssociateWithRelayCompletionPort(s, 0)) {
        Trace("ERROR:Failed to create completion port for the relay socket:%d\n", WSAGetLastError());
    } else {
        PooledPerIOData record = AcquirePerIOData(RelayOpAccept, s, 0);
        AcceptsPosted.Increment();
        posted = record != nullptr && AllocateBuffer(record.get(), 2 * kAcceptNameBytes) &&
                 Accept(std::move(record));
        if (!posted) AcceptsPosted.Decrement();
    }
    if (posted) return s;
    SafeCloseSocket(s);
    return INVALID_SOCKET;
}

bool EnsureRelayAccepts() {
    while (AcceptsPosted <= static_cast<LONG>(UnpairedCount())) {
        if (PostRelayAccept() == INVALID_SOCKET) break;
    }
    return IsRelayAcceptPosted();
}

bool IsRelayAcceptPosted() {
    return AcceptsPosted > 0;
}

void AcceptEnded(DWORD error) {
    AcceptsPosted.Decrement();
    // Peers that have gone again before they were accepted.
    const bool peersDoing =
        error == ERROR_NETNAME_DELETED || error == ERROR_CONNECTION_ABORTED || error == ERROR_SEM_TIMEOUT;
    if (error == 0) FailedAccepts = 0;
    if (RelayShutdown || (error != 0 && !peersDoing && FailedAccepts.Increment() > kMostFailures)) return;
    EnsureRelayAccepts();
}

void RetryRelayAccepts() {
    FailedAccepts = 0;
    EnsureRelayAccepts();
}

WorkerThread CloseRelayListener() {
    ListenerState& state = State.Get();
    const Locker lock(state.RelayStartLock);
    CloseRelaySocket(RelayListenSocket.Exchange(INVALID_SOCKET));
    RelayListenPort = 0;
    return std::exchange(state.Worker, WorkerThread{});
}

void DestroyRelayListener() {
    State.Destroy();
}
