// The relay's overlapped requests. A request that was posted gets exactly one packet at the relay's port,
// also when it failed at once, so that one place, the relay worker, sees every end.
//
// A connection's requests are posted with a hold on it.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include "base/atomic.h"
#include "relay/split/relay_connection.h"

/// Bytes that a receive of the relay asks for.
constexpr DWORD kRelayReceiveBytes = 4096;

/// Requests whose packet has not been taken from the port yet.
extern Atomic<LONG> PostedRequests;

/// A packet was taken from the port: its record is the caller's.
PooledPerIOData TakeFromPort(OVERLAPPED* overlapped);

/// Posts a receive of at most `size` bytes on a socket of the relay's. False when there is no memory for it.
bool PostRelayReceive(SOCKET s, DWORD size, RelayOperation operation, DWORD relayIndex,
                      PooledResponse partialMessage = nullptr);

/// Posts a receive with a record whose Buffer, socket and operation stand.
bool PostRelayReceive(PooledPerIOData record);

/// Counts the send on the connection (AddPendingSend) and posts it: of the record's Buffer, or of its
/// MessageBuffers when it has some. False, with nothing counted, when it could be neither sent nor ended.
bool PostRelaySend(PooledPerIOData record, RelayConnection& connection);

/// Posts the connect of the server socket, which is bound and associated with the port. False when it failed
/// at once, with the error as the thread's last.
bool PostServerConnect(const RelayConnection& connection, const SOCKADDR_STORAGE& name, int length);

/// Counts a send that goes out, and one whose packet has come.
void AddPendingSend(DWORD operation, RelayConnection& connection);
void UncountPendingSend(DWORD operation, RelayConnection& connection);
