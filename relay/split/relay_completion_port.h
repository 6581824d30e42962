// The completion port of the relay's sockets, and the relay's listener, which is of no use without it. Any
// thread.
//
// What is associated with the port is the lower socket behind a socket of the relay's, and the layer hands
// the requests of its own sockets down as they are: so a packet comes straight from the lower provider to the
// relay worker, and none of the overlapped manager's threads, which may be waiting for the analyzer, has to
// pass it on.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include "base/atomic.h"

/// The relay's listener, INVALID_SOCKET when there is none. Who exchanges it out closes it.
extern Atomic<SOCKET> RelayListenSocket;
/// The relay's completion port, null when there is none. Who exchanges it out closes it.
extern Atomic<HANDLE> RelayCompletionPort;

/// Makes the relay's completion port when there is none. On failure the relay listener is closed, since it
/// could not be served.
void EnsureRelayCompletionPort();

/// Associates a socket of the layer's own with the relay's completion port under key 0; `concurrency` counts
/// when the port is made. False, traced, when it can't be.
bool AssociateWithRelayCompletionPort(SOCKET s, DWORD concurrency);
