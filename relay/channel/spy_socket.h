// The spy socket: an application socket's own connection to the analyzer, made by the thread that has
// something to ask. Nothing here may be called with a lock of the library held, since the socket comes back
// into the layer.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include "base/atomic.h"

struct SocketContext;

/// Time that the connect of a spy socket may take, in microseconds. Falls to a tenth of a second after an
/// attempt timed out, so that a stuck analyzer doesn't cost every connect of the process a second, and is
/// back at a second after an attempt that succeeded through the wait.
extern Atomic<DWORD> SpyConnectTimeout;
constexpr DWORD kSpyConnectTimeout = 1000000;
constexpr DWORD kSpyConnectTimeoutAfterFailure = 100000;

/// Opens a spy socket, connects it to the analyzer and stores it in the context; one that the context already
/// holds is closed first. False, with INVALID_SOCKET stored and the failure traced, when that can't be done.
/// The socket is blocking, with sends and receives limited to 10 s, and exempt from interception.
bool ConnectSpySocket(SocketContext* context);

/// Closes the context's spy socket, if it holds one, and stores INVALID_SOCKET.
void CloseSpySocket(SocketContext* context);

/// Ends the wait of a thread that reads an answer on the context's spy socket; sends still go out.
void InterruptSpySocket(const SocketContext* context);
