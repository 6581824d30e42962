// The end of a relay socket that must not cut off what was sent on it: sends under way complete first, the
// connection is shut down behind them, and what the peer still sends is read and dropped until it ends too,
// since closing a connection with unread data resets it and throws away what the peer has not read. All that
// takes at most ten seconds, and nobody waits for it.
//
// Any thread may give a socket up; the relay worker sees to the rest.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include "relay/split/per_io_data.h"

/// What the relay knows of a socket that it gives up.
struct ClosingState {
    DWORD PendingSends = 0;        ///< sends whose packets are still to come
    bool PeerHasEnded = false;     ///< all that it sent has been received
    bool ReceiveIsPosted = false;  ///< a receive's packet is still to come
};

/// Closes a socket for good: the requests of one that stays open never end, and their memory is never free
/// again. So a close that fails is tried once more.
void CloseRelaySocket(SOCKET s);

/// Takes the socket over from its connection, where no name of it may be left.
void CloseWhenSent(SOCKET s, const ClosingState& state);

/// Takes the record of a request whose socket is none of its connection's any more: one that is being closed,
/// or was. `bytes` as its packet said.
void ContinueClosing(PooledPerIOData record, DWORD bytes);

/// Closes what has had its time.
void CloseOverdueSockets();

/// Closes all of them now.
void CloseRemainingSockets();

/// Sockets that are being closed.
DWORD ClosingSocketCount();

/// Frees the list at detach, when no other thread is left in it.
void DestroyClosingSockets();
