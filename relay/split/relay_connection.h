// One split connection: the application's socket is connected to the relay's listener, the relay's server
// socket to the real destination, and the spy socket to the analyzer. The connection owns its three sockets.
//
// A connection is reached through its table alone (relay_connection_table.h), which says how its locks are
// taken. `DataLock` guards the plain fields. Those that are Atomic change with a shared hold too: counts and
// wishes of requests under way, which any thread that sends may change.
#pragma once

#include <winsock2.h>

#include <ws2tcpip.h>

#include <windows.h>

#include <cstdint>
#include <memory>

#include "base/atomic.h"
#include "base/locker.h"
#include "base/process_locks.h"
#include "base/reader_writer_lock.h"
#include "messages/analyzer_messages.h"
#include "relay/split/per_io_data.h"

struct SocketContext;

/// For the thread that waits until the server socket of a blocking connect is connected.
class ServerConnectWait {
  public:
    ServerConnectWait() : done_(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {}
    ~ServerConnectWait();
    ServerConnectWait(const ServerConnectWait&) = delete;
    ServerConnectWait& operator=(const ServerConnectWait&) = delete;

    bool CanWait() const { return done_ != nullptr; }
    void End(bool connected);

    /// True when the socket has been connected; false when it could not be, or was closed. No lock may be
    /// held.
    bool Await() const;

  private:
    HANDLE done_;
    Atomic<bool> connected_{false};
};

struct RelayConnection {
    SOCKET OriginalSocket = INVALID_SOCKET;  ///< the application's; INVALID_SOCKET once it has closed it
    DWORD RelayIndex = 0;
    SOCKET ClientSocket = INVALID_SOCKET;  ///< accepted from the application
    SOCKET ServerSocket = INVALID_SOCKET;  ///< to the destination
    SOCKET SpySocket = INVALID_SOCKET;     ///< to the analyzer
    Atomic<BOOL> ServerConnected;
    Atomic<BOOL> ClientConnected;
    BOOL ClientExpected = TRUE;  ///< not accepted yet, and may still come
    Atomic<BOOL> InspectData;
    Atomic<BOOL> CountTraffic;
    Atomic<BOOL> ReportTraffic;
    Atomic<BOOL> AnalyzerServes;
    ReaderWriterLock LifeLock;
    ReaderWriterLock DataLock QX_ACQUIRED_AFTER(LifeLock) QX_ACQUIRED_BEFORE(SocketCreateCloseLock);
    SOCKADDR_STORAGE ClientAddress = {};  ///< the application's own; zero until looked up
    std::uint16_t ClientPort = 0;         ///< of ClientAddress
    SOCKADDR_STORAGE DestinationAddress = {};
    std::uint16_t DestinationPort = 0;
    Atomic<DWORD> Protocol;
    Atomic<DWORD> PendingServerSends;
    Atomic<DWORD> PendingClientSends;
    Atomic<DWORD> PendingSpySends;
    Atomic<DWORD> PendingServerBytes;  ///< of the analyzer's answers, on their way to the server; so the next
    Atomic<DWORD> PendingClientBytes;
    Atomic<bool> ServerReceiveWanted;  ///< to be posted when the limits allow; so the next one
    Atomic<bool> ClientReceiveWanted;
    Atomic<bool> ServerReceivePosted;  ///< its packet has not been handled; so the next two
    Atomic<bool> ClientReceivePosted;
    Atomic<bool> SpyReceivePosted;
    Atomic<bool> SpyIsOnPort;  ///< so that packets tell of its requests
    Atomic<bool> Begun;        ///< the first receives have been posted
    /// The next receive on the spy socket, while the answers before wait to be sent on. The relay worker's.
    PooledPerIOData HeldSpyReceive;
    DWORD SocketType = SOCK_STREAM;
    DWORD ClosedTicks = 0;  ///< GetTickCount when the application closed its socket
    std::shared_ptr<ServerConnectWait> ConnectWait;
};

/// What is particular to one of the two sides that bytes come from and go to.
struct RelaySide {
    SOCKET RelayConnection::*Socket;
    Atomic<BOOL> RelayConnection::*Connected;
    Atomic<DWORD> RelayConnection::*PendingSends;
    Atomic<DWORD> RelayConnection::*PendingBytes;
    Atomic<bool> RelayConnection::*ReceiveWanted;
    Atomic<bool> RelayConnection::*ReceivePosted;
    RelayOperation Receive;
    RelayOperation Send;
    OperationCode DataReport;
    OperationCode EndReport;
};

extern const RelaySide kClientSide;
extern const RelaySide kServerSide;

/// The side that an operation with a client or a server socket works on.
const RelaySide& SideOf(DWORD operation);
const RelaySide& OtherSide(const RelaySide& side);

/// Bytes can go both ways on that side. A hold on the connection is needed, here and below.
inline bool IsLive(const RelayConnection& connection, const RelaySide& side) {
    return connection.*side.Socket != INVALID_SOCKET && connection.*side.Connected;
}

/// Whether nothing more will come or go: on neither side is there a socket, nor one to come.
inline bool HasEnded(const RelayConnection& connection) {
    return connection.ClientSocket == INVALID_SOCKET && connection.ServerSocket == INVALID_SOCKET &&
           !connection.ClientExpected;
}

/// Whether bytes go through the analyzer instead of straight to the other side.
inline bool IsInspected(const RelayConnection& connection) {
    return connection.InspectData || connection.AnalyzerServes;
}
