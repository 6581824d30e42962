// Sending and receiving through the engine, waiting as the program's socket does.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include "platform/preload/bridge.h"
#include "platform/preload/descriptor_table.h"

namespace preload {

struct SendRequest {
    const Piece* pieces;
    std::size_t count;
    int flags;          ///< of send()
    const Address* to;  ///< null: the connected peer
};

/// The bytes sent, or -1 with errno. A stream that blocks sends all of it. Raises SIGPIPE as the kernel does.
ssize_t Send(int descriptor, SocketRecord& record, const SendRequest& request);

struct ReceiveRequest {
    const Piece* pieces;
    std::size_t count;
    int flags;               ///< of recv()
    Address* from;           ///< filled for datagrams; may be null
    bool truncated = false;  ///< set: a datagram was longer than the pieces
};

/// The bytes received, or -1 with errno.
ssize_t Receive(int descriptor, SocketRecord& record, ReceiveRequest* request);

/// Whether the engine can do a transfer with these flags; others are the kernel's alone.
bool KnowsSendFlags(const SocketRecord& record, int flags);
bool KnowsReceiveFlags(const SocketRecord& record, int flags);

std::size_t SizeOf(const Piece* pieces, std::size_t count);

}  // namespace preload
