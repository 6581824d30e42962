// The way to the analyzer: getting a channel for a socket, and the answer to a request on it. Application
// threads come here for contexts that they hold a reference to. Nothing here holds a lock while it waits for
// the analyzer.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include <cstdint>

#include "base/atomic.h"
#include "messages/message_pool.h"

struct SocketContext;

/// Makes the channel ready for a request about `name`, or the context's destination when it is null. True
/// when the caller may go on: channel ready, or nothing to be asked. False when the analyzer could not be
/// reached; the fail-connect policy has been applied.
bool PrepareAnalyzerChannel(SocketContext* context, const SOCKADDR_STORAGE* name, int namelen);

/// A request that is on its way, and what it said of the socket's traffic so far.
struct SentRequest {
    DWORD MessageId = 0;
    std::uint64_t BytesSent = 0;
    std::uint64_t BytesReceived = 0;
};

/// Waits for the answer to a request: for the relay worker when `event` is a registered waiter's, otherwise
/// by reading the spy socket directly, for which the caller holds the context's SpyExchange; `abandoned` (may
/// be null) then ends the wait early. Applies what every answer carries: traffic flags, exempt process, and
/// that what the request reported has been counted. Null means no answer: a spy socket that was read directly
/// has been closed, unless the wait was abandoned.
PooledResponse WaitForResponse(const SentRequest& request, SocketContext* context, HANDLE event,
                               const Atomic<bool>* abandoned = nullptr);
