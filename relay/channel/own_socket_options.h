// Options of the sockets that the layer makes for itself. Where nothing is reported, a failure leaves a
// socket slower, not unusable, and is passed over.
#pragma once

#include <winsock2.h>

#include "provider/guarded_sockets.h"

template <class Value>
void SetOption(SOCKET s, int level, int option, Value value) {
    SafeSetSockOpt(s, level, option, reinterpret_cast<const char*>(&value), sizeof(value));
}

/// Buffers of 32 KiB in both directions, and small pieces sent at once: whether they wait is the
/// application's decision, which its own socket has carried out. Urgent bytes stay among the others: a relay
/// that left them out of the stream would lose them.
inline void PrepareForTraffic(SOCKET s) {
    constexpr int kBufferBytes = 32768;
    SetOption(s, SOL_SOCKET, SO_SNDBUF, kBufferBytes);
    SetOption(s, SOL_SOCKET, SO_RCVBUF, kBufferBytes);
    SetOption(s, IPPROTO_TCP, TCP_NODELAY, 1);
    SetOption(s, SOL_SOCKET, SO_OOBINLINE, 1);
}

/// False when the socket's calls still wait.
inline bool SetNonBlocking(SOCKET s) {
    u_long nonBlocking = 1;
    return SafeIoctlSocket(s, static_cast<LONG>(FIONBIO), &nonBlocking) == 0;
}
