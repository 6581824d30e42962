// When bytes may be read. A side reads again only while few sends toward the other side and few to the
// analyzer are under way, so that whoever stops reading makes the other side stop, and what waits in memory
// for it stays small. All of this is done with a hold on the connection.
#pragma once

#include "relay/split/relay_connection_table.h"

/// Posts the first receives once bytes have somewhere to go: of both sides when both are live, of the client
/// alone when the analyzer serves.
void BeginToReceive(RelayHold& connection);

/// A side has taken what it had received: it may read on when the limits allow.
void WantReceive(RelayHold& connection, const RelaySide& side);

/// A packet of a send has come: it is uncounted, and whoever waited for that reads on.
void RemovePendingSend(DWORD operation, DWORD answerBytes, RelayHold& connection);

/// Posts the receives that are wanted and that the limits allow. Without memory for one, the connection is
/// closed.
void RepostRelayReceives(RelayHold& connection);

/// Posts the next receive on the spy socket, or holds it back while too much that the analyzer has released
/// waits to be sent. A thread that waits for an answer is never held up by that.
void PostSpyReceive(PooledPerIOData record, RelayHold& connection);
