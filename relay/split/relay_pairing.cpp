// See relay_pairing.h. An application's socket is found by its port among the connections that wait for one,
// and only among these. Its name is asked for when it is needed, since the application's thread may not have
// begun to connect it when the connection is made.
#include "relay/split/relay_pairing.h"

#include <mswsock.h>

#include <guarded_call.h>

#include <cstring>
#include <exception>
#include <utility>

#include "base/trace.h"
#include "provider/guarded_sockets.h"
#include "relay/channel/own_socket_options.h"
#include "relay/split/original_context.h"
#include "relay/split/relay_close.h"
#include "relay/split/relay_flow.h"
#include "relay/split/relay_listener.h"
#include "relay/split/spy_answers.h"

namespace {

/// How long a connection waits for a client that the application has closed before it was accepted.
constexpr DWORD kLateClientMilliseconds = 10000;

const sockaddr_in& InternetName(const SOCKADDR_STORAGE& name) {
    return reinterpret_cast<const sockaddr_in&>(name);
}

/// The name of the accepted connection's other end; false when it can't be told.
bool ReadRemoteName(const PerIOData& record, sockaddr_in* remote) {
    sockaddr* localName = nullptr;
    sockaddr* remoteName = nullptr;
    int localLength = 0;
    int remoteLength = 0;
    const bool read = GuardedCall([&]() noexcept {
        GetAcceptExSockaddrs(record.Buffer.data, 0, kAcceptNameBytes, kAcceptNameBytes, &localName,
                             &localLength, &remoteName, &remoteLength);
    });
    if (read && remoteName != nullptr && remoteLength >= static_cast<int>(sizeof(*remote))) {
        // A buffer of the arena's is aligned to nothing.
        std::memcpy(remote, remoteName, sizeof(*remote));
        if (remote->sin_port != 0) return true;
    }
    Trace("ERROR:Error while getting remote port: %d, relayIndex:%d", WSAGetLastError(),
          static_cast<int>(record.RelayIndex));
    return false;
}

bool IsClient(const RelayConnection& connection, const sockaddr_in& remote) {
    if (connection.ClientSocket != INVALID_SOCKET || !connection.ClientExpected) return false;
    if (connection.ClientPort != ntohs(remote.sin_port)) return false;
    const ULONG address = InternetName(connection.ClientAddress).sin_addr.s_addr;
    return address == htonl(INADDR_ANY) || address == remote.sin_addr.s_addr;
}

/// Whether the accepted connection was broken while it waited to be accepted. The system may have given its
/// port to another socket since.
bool IsBroken(SOCKET accepted) {
    if (!SetNonBlocking(accepted)) return false;
    char byte = 0;
    WSABUF buffer = {sizeof(byte), &byte};
    DWORD bytes = 0;
    DWORD flags = MSG_PEEK;
    if (SafeWSARecv(accepted, &buffer, 1, &bytes, &flags, nullptr, nullptr) == 0) return false;
    const int error = WSAGetLastError();
    return error == WSAECONNRESET || error == WSAECONNABORTED;
}

/// Looks up the name of the application's socket unless it is known. False when it can't be known yet. The
/// connection is held exclusively.
bool LookUpClientName(RelayConnection& connection) {
    if (connection.ClientPort != 0) return true;
    const OriginalContext original(connection);
    if (!original) return false;
    SOCKADDR_STORAGE name{};
    int length = sizeof(name);
    if (SafeGetSockName(connection.OriginalSocket, reinterpret_cast<sockaddr*>(&name), &length) != 0) {
        Trace("ERROR:Error get sock name, on socket %d: %d, relayIndex:%d",
              static_cast<int>(connection.OriginalSocket), WSAGetLastError(),
              static_cast<int>(connection.RelayIndex));
        return false;
    }
    connection.ClientPort = ntohs(InternetName(name).sin_port);
    if (connection.ClientPort == 0) return false;
    connection.ClientAddress = name;
    return true;
}

/// Whether the accepted socket became the client of this connection, or was closed with it.
bool TryPair(DWORD relayIndex, SOCKET accepted, const sockaddr_in& remote) {
    RelayHold connection = FindRelayConnection(relayIndex, DataAccess::kExclusive);
    if (!connection) return false;
    if (!LookUpClientName(*connection) || !IsClient(*connection, remote)) return false;
    // The application's own connection breaks when it closes its socket, which the relay knows before that.
    if (connection->OriginalSocket != INVALID_SOCKET && IsBroken(accepted)) return false;
    connection.DowngradeDataLock();
    if (!SetClientSocket(accepted, connection)) {
        Trace(
            "ERROR:Error: Closing entire relay connection because couldn't set client socket on connection "
            "%d.",
            static_cast<int>(relayIndex));
        CloseEntireRelayConnection(connection, connection->OriginalSocket == INVALID_SOCKET);
        SafeCloseSocket(accepted);
    }
    ReleaseRelayConnection(connection);
    return true;
}

bool Pair(const PerIOData& record) {
    sockaddr_in remote{};
    if (!ReadRemoteName(record, &remote)) return false;
    for (const DWORD relayIndex : UnpairedConnections()) {
        if (TryPair(relayIndex, record.Socket, remote)) return true;
    }
    return false;
}

void BlockOriginal(const RelayConnection& connection, int error) {
    const OriginalContext original(connection);
    if (!original) return;
    original->BlockError = error;
    original->Blocked = TRUE;
}

/// Closes the connection of a stranger, by a reset: an orderly end would keep its port in use for minutes,
/// and many of them the ports that the application needs to reach the relay.
void TurnAway(SOCKET s) {
    SetOption(s, SOL_SOCKET, SO_LINGER, linger{1, 0});
    SafeCloseSocket(s);
}

void UpdateContext(SOCKET s, int option, const char* value, int length) {
    if (SafeSetSockOpt(s, SOL_SOCKET, option, value, length) == 0 || option != SO_UPDATE_CONNECT_CONTEXT)
        return;
    Trace("ERROR:Failed to update context after connectex call. Socket %d. Error = %d.", static_cast<int>(s),
          WSAGetLastError());
}

}  // namespace

void OnRelayAccepted(PooledPerIOData record, DWORD error) {
    bool paired = false;
    if (error == 0) {
        const SOCKET listener = RelayListenSocket;
        UpdateContext(record->Socket, SO_UPDATE_ACCEPT_CONTEXT, reinterpret_cast<const char*>(&listener),
                      sizeof(listener));
        try {
            paired = Pair(*record);
        } catch (const std::exception&) {
            // Out of memory: as if it were a stranger.
        }
    }
    if (!paired) TurnAway(record->Socket);
    AcceptEnded(error);
}

bool SetClientSocket(SOCKET clientSocket, RelayHold& connection) {
    if (!connection) {
        Trace("ERROR:Original socket found, but no connection associated. Clientsocket = %d.\n",
              static_cast<int>(clientSocket));
        return false;
    }
    if (clientSocket == INVALID_SOCKET) {
        Trace("ERROR:Cannot set client socket to invalid socket.\n");
        return false;
    }
    connection.UpgradeDataLock();
    if (const OriginalContext original(*connection); original) original->RelayAccepted = TRUE;
    connection->ClientSocket = clientSocket;
    connection->ClientConnected = TRUE;
    connection->ClientExpected = FALSE;
    connection.DowngradeDataLock();
    MarkSocketAsOwn(clientSocket, connection->RelayIndex);
    ForgetUnpaired(connection->RelayIndex);
    // Not before the client is there, for which the analyzer may have something at once.
    if (!PostFirstSpyReceive(connection)) {
        CloseEntireRelayConnection(connection, true);
        return true;
    }
    BeginToReceive(connection);
    return true;
}

void SetServerConnected(RelayHold& connection) {
    // With the shared hold alone: the thread that has begun the connect may have the connection still.
    if (connection->ServerSocket != INVALID_SOCKET) connection->ServerConnected = TRUE;
    if (connection->ConnectWait != nullptr)
        connection->ConnectWait->End(connection->ServerConnected != FALSE);
    BeginToReceive(connection);
}

void OnServerConnected(PooledPerIOData record, RelayHold& connection) {
    const SOCKET server = record->Socket;
    DWORD bytes = 0;
    DWORD flags = 0;
    if (SafeWSAGetOverlappedResult(server, &record->Overlapped, &bytes, FALSE, &flags)) {
        UpdateContext(server, SO_UPDATE_CONNECT_CONTEXT, nullptr, 0);
        SetServerConnected(connection);
        return;
    }
    const int error = WSAGetLastError();
    BlockOriginal(*connection, error);
    CloseEntireRelayConnection(connection, connection->OriginalSocket == INVALID_SOCKET);
}

void ForgetOverdueClients() {
    const DWORD now = GetTickCount();
    for (const DWORD relayIndex : UnpairedConnections()) {
        RelayHold connection = FindRelayConnection(relayIndex);
        if (!connection) continue;
        const bool overdue = connection->OriginalSocket == INVALID_SOCKET &&
                             now - connection->ClosedTicks >= kLateClientMilliseconds;
        if (overdue) CloseEntireRelayConnection(connection, true);
        ReleaseRelayConnection(connection);
    }
}
