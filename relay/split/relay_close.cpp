// See relay_close.h.
#include "relay/split/relay_close.h"

#include <utility>

#include "provider/guarded_sockets.h"
#include "relay/channel/pending_responses.h"
#include "relay/split/closing_sockets.h"

namespace {

/// Takes a side's socket out of the connection, which is held exclusively.
SOCKET TakeSocket(RelayConnection& connection, const RelaySide& side) {
    connection.*side.Connected = FALSE;
    // What it has not taken holds the analyzer up no longer.
    connection.*side.PendingBytes = 0;
    return std::exchange(connection.*side.Socket, INVALID_SOCKET);
}

/// What closing a side needs to know of it.
ClosingState StateOf(RelayConnection& connection, const RelaySide& side, SideEnd end) {
    ClosingState state;
    state.PendingSends = (connection.*side.PendingSends).Exchange(0);
    state.PeerHasEnded = end == SideEnd::kByPeer;
    state.ReceiveIsPosted = connection.*side.ReceivePosted;
    return state;
}

void CloseSpy(RelayConnection& connection) {
    const SOCKET spySocket = std::exchange(connection.SpySocket, INVALID_SOCKET);
    if (spySocket == INVALID_SOCKET) return;
    connection.HeldSpyReceive.reset();
    if (!connection.SpyIsOnPort) {
        CloseRelaySocket(spySocket);
        return;
    }
    ClosingState state;
    state.PendingSends = connection.PendingSpySends.Exchange(0);
    state.ReceiveIsPosted = connection.SpyReceivePosted;
    CloseWhenSent(spySocket, state);
}

}  // namespace

bool CloseRelaySide(RelayHold& connection, const RelaySide& side, SideEnd end) {
    connection.UpgradeDataLock();
    if (&side == &kClientSide) connection->ClientExpected = FALSE;
    const SOCKET s = TakeSocket(*connection, side);
    const ClosingState state = StateOf(*connection, side, end);
    // Before any other thread sees a packet of it.
    CloseWhenSent(s, state);
    connection.DowngradeDataLock();
    return s != INVALID_SOCKET;
}

void CloseEntireRelayConnection(RelayHold& connection, bool closeSpy) {
    connection.UpgradeDataLock();
    connection->ClientExpected = FALSE;
    const SOCKET client = TakeSocket(*connection, kClientSide);
    const SOCKET server = TakeSocket(*connection, kServerSide);
    connection->PendingClientSends = 0;
    connection->PendingServerSends = 0;
    if (connection->ConnectWait != nullptr) connection->ConnectWait->End(false);
    for (const SOCKET s : {client, server}) {
        SafeShutdown(s, SD_BOTH);
        CloseRelaySocket(s);
    }
    // What an answer would say matters to nobody, and nobody may be there to read it.
    WakeResponseWaiters(connection->SpySocket);
    if (closeSpy) CloseSpy(*connection);
    connection.DowngradeDataLock();
    ForgetUnpaired(connection->RelayIndex);
}

bool IsFinished(const RelayConnection& connection) {
    return connection.OriginalSocket == INVALID_SOCKET && HasEnded(connection);
}

void ReleaseRelayConnection(RelayHold& connection) {
    const bool spyIsGone = connection->SpySocket == INVALID_SOCKET;
    const bool removed = spyIsGone || IsFinished(*connection);
    if (removed) CloseEntireRelayConnection(connection, true);
    const DWORD index = connection->RelayIndex;
    connection.Release();
    if (removed) RemoveRelayConnection(index);
}
