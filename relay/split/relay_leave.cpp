// See relay_leave.h.
#include "relay/split/relay_leave.h"

#include <cstring>

#include "relay/channel/pending_responses.h"
#include "relay/split/relay_close.h"
#include "relay/split/relay_completion_port.h"
#include "relay/split/relay_requests.h"

bool TellWorkerOfLeave(SOCKET originalSocket, DWORD relayIndex) {
    PooledPerIOData record = AcquirePerIOData(RelayOpLeave, originalSocket, relayIndex);
    const OpenTableHold table;
    if (record == nullptr || !table) return false;
    PostedRequests.Increment();
    if (PostQueuedCompletionStatus(RelayCompletionPort, 0, 0, &record->Overlapped)) {
        (void)record.release();
        return true;
    }
    PostedRequests.Decrement();
    return false;
}

void OnLeavePacket(PooledPerIOData record) {
    RelayHold connection = FindRelayConnection(record->RelayIndex);
    // The index may be another connection's by now.
    if (connection && connection->OriginalSocket == record->Socket) OnOriginalLeft({}, connection);
}

void OnOriginalLeft(const sockaddr_in& clientName, RelayHold& connection) {
    connection.UpgradeDataLock();
    if (connection->ClientPort == 0 && clientName.sin_port != 0) {
        std::memcpy(&connection->ClientAddress, &clientName, sizeof(clientName));
        connection->ClientPort = ntohs(clientName.sin_port);
    }
    if (connection->ClientPort == 0) connection->ClientExpected = FALSE;
    const bool neverConnected =
        connection->ClientSocket == INVALID_SOCKET && !connection->ClientExpected && !connection->Begun;
    connection->OriginalSocket = INVALID_SOCKET;
    connection->ClosedTicks = GetTickCount();
    const SOCKET spySocket = connection->SpySocket;
    connection.DowngradeDataLock();
    WakeResponseWaiters(spySocket);
    if (neverConnected) CloseEntireRelayConnection(connection, true);
    ReleaseRelayConnection(connection);
}
