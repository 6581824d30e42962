// The analyzer's answers on the spy socket of a split connection: a byte stream that is put together into
// frames, each of which a thread waits for or says what to do with the connection. On the relay worker, with
// a hold on the connection.
#pragma once

#include "relay/split/relay_connection_table.h"

/// Posts the first receive on the spy socket. False without memory.
bool PostFirstSpyReceive(RelayHold& connection);

/// A receive on the spy socket has brought `bytes` bytes.
void OnSpyData(PooledPerIOData record, DWORD bytes, RelayHold& connection);

/// The analyzer has closed the spy socket, or it is broken.
void OnSpyClosed(RelayHold& connection);
