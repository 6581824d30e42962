// See split_connection.h.
#include "relay/split/split_connection.h"

#include <memory>
#include <new>
#include <utility>

#include "base/trace.h"
#include "provider/contexts/socket_context.h"
#include "provider/guarded_sockets.h"
#include "relay/channel/own_socket_options.h"
#include "relay/split/relay_close.h"
#include "relay/split/relay_leave.h"
#include "relay/split/relay_listener.h"

namespace {

void PointToListener(SocketContext* context, ConnectTarget* target) {
    SOCKADDR_STORAGE listener{};
    auto& name = reinterpret_cast<sockaddr_in&>(listener);
    name.sin_family = AF_INET;
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    name.sin_port = htons(static_cast<u_short>(DWORD{RelayListenPort}));
    context->RelayAddress.Store(&listener, sizeof(listener));
    context->Split = TRUE;
    target->name = listener;
    target->length = sizeof(listener);
}

/// A connection as its socket's verdict wants it, without sockets. Null without memory.
std::unique_ptr<RelayConnection> MakeConnection(const SocketContext* context, const ConnectTarget& target) {
    try {
        auto connection = std::make_unique<RelayConnection>();
        connection->OriginalSocket = context->LayeredSocket;
        connection->InspectData = BOOL{context->InspectData};
        connection->CountTraffic = BOOL{context->CountTraffic};
        connection->ReportTraffic = BOOL{context->ReportTraffic};
        connection->AnalyzerServes = BOOL{context->AnalyzerServes};
        connection->Protocol = DWORD{context->Protocol};
        connection->DestinationAddress = target.name;
        connection->DestinationPort = ntohs(reinterpret_cast<const sockaddr_in&>(target.name).sin_port);
        connection->SocketType = static_cast<DWORD>(context->SocketType);
        return connection;
    } catch (const std::exception&) {
        // Memory, or what a lock needs of the system.
        return nullptr;
    }
}

/// Makes the connection, which takes the context's spy socket over, and puts it into the table. 0 when that
/// can't be done.
DWORD Insert(SocketContext* context, const ConnectTarget& target) {
    std::unique_ptr<RelayConnection> connection = MakeConnection(context, target);
    if (connection == nullptr) return 0;
    const SOCKET spySocket = context->SpySocket.Exchange(INVALID_SOCKET);
    connection->SpySocket = spySocket;
    const DWORD relayIndex = InsertRelayConnection(std::move(connection));
    if (relayIndex == 0) SafeCloseSocket(spySocket);
    context->RelayAccepted = FALSE;
    context->RelayIndex = relayIndex;
    return relayIndex;
}

bool PrepareSpySocket(RelayHold& connection) {
    const SOCKET spySocket = connection->SpySocket;
    MarkSocketAsOwn(spySocket, connection->RelayIndex);
    connection->SpyIsOnPort = SetNonBlocking(spySocket) && AssociateWithRelayCompletionPort(spySocket, 0);
    if (connection->SpyIsOnPort) return true;
    Trace("ERROR:Failed to set completion port on lsp socket %d.\n", static_cast<int>(spySocket));
    return false;
}

/// Makes the server socket; false, traced, when that can't be done.
bool MakeServerSocket(const SocketContext* context, RelayHold& connection) {
    const SOCKET server =
        SafeWSASocket(context->AddressFamily, context->SocketType, context->SocketProtocol, nullptr,
                      context->SocketGroup, context->SocketFlags | WSA_FLAG_OVERLAPPED);
    if (server == INVALID_SOCKET) {
        const int error = WSAGetLastError();
        Trace("ERROR:Failed to create the server socket for relaying connections:%d, #Details: %s #\n", error,
              DescribeContext(context).c_str());
        return false;
    }
    PrepareForTraffic(server);
    MarkSocketAsOwn(server, connection->RelayIndex);
    connection.UpgradeDataLock();
    // The analyzer may have closed the spy socket, and with it the connection, meanwhile.
    const bool wanted = connection->SpySocket != INVALID_SOCKET;
    if (wanted) connection->ServerSocket = server;
    connection.DowngradeDataLock();
    if (!wanted) SafeCloseSocket(server);
    return wanted;
}

/// Begins to connect the server socket; false, traced, when it can't be.
bool ConnectServerSocket(const SocketContext* context, RelayHold& connection, const ConnectTarget& target) {
    const SOCKET server = connection->ServerSocket;
    if (!AssociateWithRelayCompletionPort(server, 0)) {
        Trace("ERROR:Failed to set completion port on server socket %d.\n", static_cast<int>(server));
        return false;
    }
    sockaddr_in any{};
    any.sin_family = AF_INET;
    if (SafeBind(server, reinterpret_cast<const sockaddr*>(&any), sizeof(any)) != 0) {
        const int error = WSAGetLastError();
        Trace("ERROR:Failed to bind server socket %d. #Details: %s #. Error = %d.", static_cast<int>(server),
              DescribeContext(context).c_str(), error);
        return false;
    }
    return PostServerConnect(*connection, target.name, target.length);
}

/// Whether the connect of this socket blocks until the destination is reached: one that knows no overlapped
/// requests.
bool WaitsForServer(const SocketContext* context) {
    return (context->SocketFlags & WSA_FLAG_OVERLAPPED) == 0;
}

/// Makes what a connection consists of. False when a part can't be had.
bool Build(SocketContext* context, DWORD relayIndex, const ConnectTarget& target,
           std::shared_ptr<ServerConnectWait>* wait) {
    RelayHold connection = FindRelayConnection(relayIndex);
    if (!connection || !PrepareSpySocket(connection)) return false;
    if (!EnsureRelayAccepts()) return false;
    if (connection->AnalyzerServes) return true;
    if (WaitsForServer(context)) {
        *wait = std::make_shared<ServerConnectWait>();
        if (!(*wait)->CanWait()) return false;
        connection.UpgradeDataLock();
        connection->ConnectWait = *wait;
        connection.DowngradeDataLock();
    }
    return MakeServerSocket(context, connection) && ConnectServerSocket(context, connection, target);
}

bool TryBuild(SocketContext* context, DWORD relayIndex, const ConnectTarget& target) {
    try {
        std::shared_ptr<ServerConnectWait> wait;
        return Build(context, relayIndex, target, &wait) && (wait == nullptr || wait->Await());
    } catch (const std::exception&) {
        return false;
    }
}

/// The name by which the listener knows the socket's connection, blank when it has none. An overlapped
/// connect does not store it.
sockaddr_in ClientNameOf(const SocketContext* context) {
    SOCKADDR_STORAGE name = context->LocalAddress.Load();
    auto& internetName = reinterpret_cast<sockaddr_in&>(name);
    int length = sizeof(name);
    if (internetName.sin_port == 0 &&
        SafeGetSockName(context->LayeredSocket, reinterpret_cast<sockaddr*>(&name), &length) != 0) {
        return {};
    }
    return internetName;
}

void ForgetSplit(SocketContext* context) {
    context->RelayIndex = 0;
    context->Split = FALSE;
}

}  // namespace

bool SplitConnection(SocketContext* context, ConnectTarget* target) {
    const DWORD relayIndex = StartRelayListener() ? Insert(context, *target) : 0;
    if (relayIndex != 0 && TryBuild(context, relayIndex, *target)) {
        PointToListener(context, target);
        return true;
    }
    if (relayIndex != 0) WSASetLastError(WSAECONNABORTED);
    CloseSplit(context);
    return false;
}

void CloseSplit(SocketContext* context) {
    const DWORD relayIndex = context->RelayIndex;
    {
        RelayHold connection = FindRelayConnectionOf(*context);
        if (connection) {
            Trace("ERROR:Closing entire relay connection because we cleanup in wspconnect, %d.",
                  static_cast<int>(SOCKET{context->LayeredSocket}));
            CloseEntireRelayConnection(connection, true);
            connection.Release();
            RemoveRelayConnection(relayIndex);
        }
    }
    SafeCloseSocket(context->SpySocket.Exchange(INVALID_SOCKET));
    ForgetSplit(context);
}

void LeaveSplit(SocketContext* context) {
    if (context->RelayIndex == 0) return;
    // The relay worker does it, so that no close waits for what that has in hand. But a client that it has
    // still to find must have a name by then.
    if (!context->RelayAccepted || !TellWorkerOfLeave(context->LayeredSocket, context->RelayIndex)) {
        const sockaddr_in clientName = ClientNameOf(context);
        RelayHold connection = FindRelayConnectionOf(*context);
        if (connection) OnOriginalLeft(clientName, connection);
    }
    ForgetSplit(context);
    context->RelayWanted = FALSE;
}
