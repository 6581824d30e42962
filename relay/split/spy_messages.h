// What the relay tells the analyzer of a split connection by itself: the bytes of the two sides, and their
// ends. With a hold on the connection.
#pragma once

#include "relay/split/relay_connection_table.h"

/// Sends a request about the connection to the analyzer, overlapped; it ends with its packet. With
/// `dataRecord` the first `bytes` bytes of the record's Buffer go along, which the request takes over. False,
/// traced, when it can't be sent: the channel is of no use any more.
bool SendSpyMessage(RelayConnection& connection, OperationCode operation, PerIOData* dataRecord, DWORD bytes);

/// Sends a request about the application's socket in the same way. It lives until its packet comes, whether
/// anybody still waits for its answer or not.
bool SendSpyReport(RelayConnection& connection, PooledRequest request);
