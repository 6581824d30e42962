// The waiting side of answers that the relay worker reads; CreateResponseWait, WakeResponseWaiters and
// DeliverResponse are declared in analyzer_channel.h.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include "messages/message_pool.h"

struct SocketContext;

/// Waits for the answer handed to this waiter, at most a minute; removes the waiter and closes `event` in
/// every case. Null means that there was none; the connection must then be given up.
PooledResponse FetchDeliveredResponse(DWORD messageId, const SocketContext* context, HANDLE event);
