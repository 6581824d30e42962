// What happens to the bytes of the two sides: straight to the other side, or to the analyzer; and to a side's
// end, which the analyzer is told of once. On the relay worker, with a hold on the connection.
#pragma once

#include "relay/split/relay_connection_table.h"

/// A receive on a side's socket has brought `bytes` bytes.
void OnRelayData(PooledPerIOData record, DWORD bytes, RelayHold& connection);

/// A request on a side's socket has ended without bytes: the peer has closed, or the connection is broken.
void OnRelayPeerClosed(DWORD operation, RelayHold& connection);
