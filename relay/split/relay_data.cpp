// See relay_data.h.
#include "relay/split/relay_data.h"

#include <utility>

#include "base/trace.h"
#include "relay/split/original_context.h"
#include "relay/split/relay_close.h"
#include "relay/split/relay_flow.h"
#include "relay/split/relay_requests.h"
#include "relay/split/spy_messages.h"

namespace {

/// The application's socket was refused further traffic, as an answer to one of its reports.
bool IsOriginalBlocked(const RelayConnection& connection) {
    const OriginalContext original(connection);
    return original && original->Blocked;
}

/// What was received so far is being reported by the relay itself.
void ForgetCounts(const RelayConnection& connection) {
    const OriginalContext original(connection);
    if (!original) return;
    original->BytesSent = 0;
    original->BytesRecv = 0;
}

void Inspect(PooledPerIOData record, DWORD bytes, const RelaySide& side, RelayHold& connection) {
    if (connection->CountTraffic) ForgetCounts(*connection);
    if (SendSpyMessage(*connection, side.DataReport, record.get(), bytes)) return;
    Trace(&side == &kClientSide ? "ERROR:Closing entire relay connection because couldn't send a spy message "
                                  "in recv client server, "
                                  "%d. spy socket:%d."
                                : "ERROR:Closing entire relay connection because couldn't send a spy message "
                                  "in recv client server "
                                  "again, %d. spy socket %d",
          static_cast<int>(connection->RelayIndex), static_cast<int>(connection->SpySocket));
    CloseEntireRelayConnection(connection, true);
}

void Forward(PooledPerIOData record, const RelaySide& side, RelayHold& connection) {
    if (IsOriginalBlocked(*connection)) {
        // The server has nobody left whom it could answer, and may never end the connection by itself.
        CloseRelaySide(connection, kClientSide, SideEnd::kByAnalyzer);
        CloseRelaySide(connection, kServerSide, SideEnd::kByAnalyzer);
        return;
    }
    const RelaySide& target = OtherSide(side);
    if (!IsLive(*connection, target)) return;
    record->Operation = target.Send;
    record->Socket = (*connection).*target.Socket;
    // Bytes that are lost in the middle must not be followed by others.
    if (!PostRelaySend(std::move(record), *connection)) CloseEntireRelayConnection(connection, true);
}

}  // namespace

void OnRelayData(PooledPerIOData record, DWORD bytes, RelayHold& connection) {
    const RelaySide& side = SideOf(record->Operation);
    (*connection).*side.ReceivePosted = false;
    if (bytes < record->Buffer.length) record->Buffer.length = bytes;
    if (IsInspected(*connection)) {
        Inspect(std::move(record), bytes, side, connection);
    } else {
        Forward(std::move(record), side, connection);
    }
    if (!HasEnded(*connection)) WantReceive(connection, side);
}

void OnRelayPeerClosed(DWORD operation, RelayHold& connection) {
    const RelaySide& side = SideOf(operation);
    const bool received = operation == side.Receive;
    if (received) (*connection).*side.ReceivePosted = false;
    if (!CloseRelaySide(connection, side, received ? SideEnd::kByPeer : SideEnd::kBroken)) return;
    if (!SendSpyMessage(*connection, side.EndReport, nullptr, 0)) {
        Trace(&side == &kClientSide ? "ERROR:Closing entire relay connection because we couldn't send a "
                                      "message of client closed, %d."
                                    : "ERROR:Closing entire relay connection because we couldn't send a "
                                      "message of server closed, %d.",
              static_cast<int>(connection->RelayIndex));
        CloseEntireRelayConnection(connection, true);
    }
    // A side that waited for the ended one to take its bytes waits no longer.
    RepostRelayReceives(connection);
}
