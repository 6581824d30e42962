// How the two sides of a split connection come to be: the application's socket is accepted by the relay's
// listener and found by its port, and the server socket is connected. On the relay worker.
#pragma once

#include "relay/split/relay_connection_table.h"

/// An accept has ended, with the system's `error` or 0. Whoever was accepted and is none of the application's
/// sockets that are waited for is closed.
void OnRelayAccepted(PooledPerIOData record, DWORD error);

/// The connect of the server socket has ended; `record` is its request. A failure blocks the application's
/// socket with the connect's error.
void OnServerConnected(PooledPerIOData record, RelayHold& connection);

/// Makes the accepted socket the client side of the connection; false, traced, when it can't be. On success
/// the connection owns it.
bool SetClientSocket(SOCKET clientSocket, RelayHold& connection);

/// Stores that the server socket is connected, and begins to receive when the client is there.
void SetServerConnected(RelayHold& connection);

/// Gives up waiting for the sockets of applications that have closed them before they were accepted.
void ForgetOverdueClients();
