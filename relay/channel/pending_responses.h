// Answers that one thread reads, the relay worker, and others wait for: a table of waiters by the id of their
// request. `PendingResponseLock` guards it, a leaf lock that is never held while anyone waits.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include "messages/message_pool.h"

struct SocketContext;

/// How long an answer that the relay worker reads is waited for, in milliseconds.
constexpr DWORD kResponseWaitMilliseconds = 60000;

/// Registers a waiter for the answer to a request that goes out on the spy socket of a relay connection, on
/// which the caller has a hold. Returns its event, which FetchDeliveredResponse closes, or
/// INVALID_HANDLE_VALUE when there is no spy socket, or memory or handles ran out.
HANDLE CreateResponseWait(DWORD messageId, SOCKET spySocket);

/// Waits for the answer handed to this waiter, at most a minute; removes the waiter and closes `event` in
/// every case. Null means that there was none; the connection must then be given up.
PooledResponse FetchDeliveredResponse(DWORD messageId, const SocketContext* context, HANDLE event);

/// Wakes everyone who waits for an answer on this spy socket; they find none. Takes `PendingResponseLock`,
/// also with a relay record's locks held.
void WakeResponseWaiters(SOCKET spySocket);

/// Whether anybody waits for an answer on this spy socket.
bool HasResponseWaiters(SOCKET spySocket);

/// Hands an answer to the waiter of its request. True: the response has been taken over. False: nobody waits,
/// and it stays the caller's.
bool DeliverResponse(PooledResponse& response);

/// Releases every registered waiter's event and every answer that nobody fetched. For the last clean-up and
/// the detach, when no application thread waits any more.
void ClearPendingResponses();
