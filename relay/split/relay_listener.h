// The relay's listener on 127.0.0.1, its worker, and the accepts that are under way. The first split starts
// them; `RelayStartLock` keeps the splits of other threads out meanwhile.
#pragma once

#include "base/atomic.h"
#include "provider/overlapped/worker_thread.h"
#include "relay/split/relay_completion_port.h"
#include "relay/split/relay_requests.h"

/// The first port that the listener tries, and the one that it tries no more.
constexpr DWORD kFirstRelayPort = 48300;
constexpr DWORD kRelayPortLimit = 51300;

/// Bytes for one name in the buffer of an accept: the longest name, and what the system adds.
constexpr DWORD kAcceptNameBytes = sizeof(SOCKADDR_STORAGE) + 16;

/// The listener's port; kFirstRelayPort after a start that failed, 0 before the first.
extern Atomic<DWORD> RelayListenPort;

/// Starts the listener and the relay worker unless they run. False, with nothing left, when that can't be
/// done.
bool StartRelayListener();

/// Posts an accept. Its socket, or INVALID_SOCKET.
SOCKET PostRelayAccept();

/// Makes sure that an accept is under way for every connection that waits for its client, and one more for a
/// stranger. False when none is.
bool EnsureRelayAccepts();

/// Whether any is.
bool IsRelayAcceptPosted();

/// The packet of an accept has come, with the system's `error` or 0: another one takes its place.
void AcceptEnded(DWORD error);

/// Makes sure again after accepts that failed.
void RetryRelayAccepts();

/// Closes the listener and takes the worker's thread, which the caller is to tell and to wait for.
WorkerThread CloseRelayListener();

/// Frees the start's lock at detach, when no other thread is left in it.
void DestroyRelayListener();
