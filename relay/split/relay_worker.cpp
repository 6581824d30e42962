// See relay_worker.h.
#include "relay/split/relay_worker.h"

#include <exception>
#include <utility>

#include "base/trace.h"
#include "provider/guarded_sockets.h"
#include "relay/split/closing_sockets.h"
#include "relay/split/relay_close.h"
#include "relay/split/relay_data.h"
#include "relay/split/relay_flow.h"
#include "relay/split/relay_leave.h"
#include "relay/split/relay_life.h"
#include "relay/split/relay_listener.h"
#include "relay/split/relay_pairing.h"
#include "relay/split/relay_requests.h"
#include "relay/split/spy_answers.h"

namespace {

constexpr DWORD kIdleMilliseconds = 3000;
constexpr DWORD kTendMilliseconds = 1000;
constexpr DWORD kLastPacketMilliseconds = 1000;
constexpr DWORD kFailedWaitMilliseconds = 10;

struct Packet {
    bool succeeded;
    DWORD error;  // when it has not
    DWORD bytes;
    ULONG_PTR key;
    OVERLAPPED* overlapped;
};

Packet TakePacket(HANDLE port, DWORD milliseconds) {
    Packet packet = {};
    packet.succeeded = GetQueuedCompletionStatus(port, &packet.bytes, &packet.key, &packet.overlapped,
                                                 milliseconds) != FALSE;
    packet.error = packet.succeeded ? 0 : GetLastError();
    return packet;
}

/// The socket that the connection has for such a request by now.
SOCKET SocketOf(const RelayConnection& connection, DWORD operation) {
    switch (operation) {
        case RelayOpSpyRecv:
        case RelayOpSpySend:
            return connection.SpySocket;
        case RelayOpConnect:
            return connection.ServerSocket;
        default:
            return connection.*SideOf(operation).Socket;
    }
}

/// A request of the connection's has ended.
void Handle(PooledPerIOData record, DWORD bytes, RelayHold& connection) {
    const DWORD operation = record->Operation;
    switch (operation) {
        case RelayOpConnect:
            OnServerConnected(std::move(record), connection);
            break;
        case RelayOpSpyRecv:
            connection->SpyReceivePosted = false;
            if (bytes == 0) {
                OnSpyClosed(connection);
            } else {
                OnSpyData(std::move(record), bytes, connection);
            }
            break;
        case RelayOpSpySend:
            if (bytes == 0) {
                UncountPendingSend(operation, *connection);
                OnSpyClosed(connection);
            } else {
                RemovePendingSend(operation, 0, connection);
            }
            break;
        case RelayOpClientSend:
        case RelayOpServerSend:
            if (bytes == 0) {
                UncountPendingSend(operation, *connection);
                OnRelayPeerClosed(operation, connection);
            } else {
                RemovePendingSend(operation, record->Response != nullptr ? record->Bytes : 0, connection);
            }
            break;
        default:
            if (bytes == 0) {
                OnRelayPeerClosed(operation, connection);
            } else {
                OnRelayData(std::move(record), bytes, connection);
            }
    }
}

void Dispatch(PooledPerIOData record, const Packet& packet) {
    if (record->Operation == RelayOpAccept) {
        OnRelayAccepted(std::move(record), packet.error);
        return;
    }
    if (record->Operation == RelayOpLeave) {
        OnLeavePacket(std::move(record));
        return;
    }
    RelayHold connection = FindRelayConnection(record->RelayIndex);
    const DWORD operation = record->Operation;
    if (connection && SocketOf(*connection, operation) == record->Socket) {
        Handle(std::move(record), packet.bytes, connection);
        ReleaseRelayConnection(connection);
    } else {
        // Its socket was given up.
        connection.Release();
        ContinueClosing(std::move(record), packet.bytes);
    }
}

/// What has its time: sockets that are being closed, clients that don't come, accepts that failed.
void Tend() {
    CloseOverdueSockets();
    ForgetOverdueClients();
    if (RelayListenSocket != INVALID_SOCKET) RetryRelayAccepts();
}

bool HasToTend() {
    return ClosingSocketCount() > 0 || !IsRelayAcceptPosted();
}

/// Takes back what was posted. Sockets are closed meanwhile, some with a last receive that makes sure of it;
/// once all of them are, everything ends.
void TakeBackRequests(HANDLE port) {
    DWORD lastPacket = GetTickCount();
    while (!RelaySocketsClosed || PostedRequests > 0) {
        const Packet packet = TakePacket(port, kLastPacketMilliseconds);
        if (packet.overlapped == nullptr && !packet.succeeded) {
            if (RelaySocketsClosed && GetTickCount() - lastPacket >= kLastPacketMilliseconds) return;
            if (packet.error != WAIT_TIMEOUT) Sleep(kFailedWaitMilliseconds);
            continue;
        }
        lastPacket = GetTickCount();
        if (packet.overlapped == nullptr) continue;
        const PooledPerIOData record = TakeFromPort(packet.overlapped);
        if (record->Operation == RelayOpAccept) SafeCloseSocket(record->Socket);
    }
}

}  // namespace

DWORD WINAPI RelayWorker(LPVOID port) {
    DWORD lastTended = GetTickCount();
    while (!RelayShutdown) {
        const Packet packet = TakePacket(port, HasToTend() ? kTendMilliseconds : kIdleMilliseconds);
        if (packet.overlapped == nullptr && (RelayShutdown || packet.bytes == kStopPacket)) break;
        try {
            if (packet.overlapped != nullptr) {
                PooledPerIOData record = TakeFromPort(packet.overlapped);
                Dispatch(std::move(record), packet);
            } else if (packet.succeeded) {
                Trace("LSP PerIOData is NULL! breturn is %d, bytes:%d. Error = %d.", 1,
                      static_cast<int>(packet.bytes), static_cast<int>(packet.error));
            } else if (packet.error != WAIT_TIMEOUT) {
                Sleep(kFailedWaitMilliseconds);
            }
            if (GetTickCount() - lastTended >= kTendMilliseconds) {
                lastTended = GetTickCount();
                Tend();
            }
        } catch (const std::exception&) {
            // Out of memory for a list: it is looked at again later.
        }
    }
    TakeBackRequests(port);
    return 0;
}
