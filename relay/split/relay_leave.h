// The application's socket leaves its split connection, by being closed or used anew. The relay worker is
// told by a packet of the relay's own.
#pragma once

#include "relay/split/relay_connection_table.h"

/// Queues the packet, for a connection whose client has been accepted. False when that can't be done: the
/// caller does what the worker would have done.
bool TellWorkerOfLeave(SOCKET originalSocket, DWORD relayIndex);

/// The packet has come.
void OnLeavePacket(PooledPerIOData record);

/// The connection has no application's socket any more. What that has sent before still goes its way, also
/// when it has not been accepted yet: `clientName` is its name, by which it is known then, or blank. The hold
/// ends.
void OnOriginalLeft(const sockaddr_in& clientName, RelayHold& connection);
