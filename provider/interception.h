// What the provider asks of the interception when an application's call needs a verdict or a look at its
// data. The relay folder defines these functions; the provider includes nothing of it. All of them run on the
// application's thread (or an overlapped worker) with one reference on the context held by the caller and no
// other lock of the library held.
#pragma once

#include <winsock2.h>

#include <windows.h>

struct SocketContext;

/// Where one connect goes by its own verdict. The context's fields follow the verdicts of all threads that
/// connect the same socket.
struct ConnectTarget {
    enum class Way { kDirect, kThroughRelay, kRefused };

    Way way = Way::kDirect;
    SOCKADDR_STORAGE name;
};

/// Asks the analyzer about a stream connect to `name` and applies its verdict to the context (`Blocked`,
/// `RelayWanted`, `Split`, `RelayAddress` and the verdict flags) and to `*nameOut`: the way, and when it is
/// redirected the name, which is otherwise left alone. `*namelenOut` stays the application's. True when a
/// verdict was applied or none was needed, false when the analyzer could not be asked or did not answer (the
/// fail-connect policy has then been applied).
bool AskConnectVerdict(SocketContext* context, const sockaddr* name, int namelen, ConnectTarget* nameOut,
                       int* namelenOut);

/// Splits the connection of the application's socket `s` through the relay: on success `nameOut->name` and
/// `*namelenOut` give the relay listener's address, to which the lower socket is then connected. On failure
/// everything the split made has been released.
bool SplitConnection(SOCKET s, SocketContext* context, const sockaddr* name, int namelen,
                     ConnectTarget* nameOut, int* namelenOut);

/// Closes and removes the relay connection of a split whose connect to the relay listener failed.
void AbandonSplit(SOCKET s, SocketContext* context);

/// A look at received data of a stream socket; `bytesReceived` may be null. May set `Blocked`.
void AnalyzeReceived(SocketContext* context, const WSABUF* buffers, DWORD count, const DWORD* bytesReceived);

/// A look at data about to be sent on a stream socket. May set `Blocked`.
void AnalyzeSent(SocketContext* context, const WSABUF* buffers, DWORD count);

/// As `AnalyzeReceived` for datagram sockets; `from` is a 128-byte copy of the peer's address or null.
void AnalyzeReceivedFrom(SocketContext* context, const WSABUF* buffers, DWORD count,
                         const DWORD* bytesReceived, const sockaddr* from);

/// As `AnalyzeSent` for datagram sockets; `to` is a 128-byte copy of the destination or null.
void AnalyzeSentTo(SocketContext* context, const WSABUF* buffers, DWORD count, const sockaddr* to);

/// Reports a bind and applies the answer. May set `Blocked`.
void NotifyBind(SocketContext* context, const sockaddr* name, int namelen);

/// Reports the application's close of its socket and releases what the interception keeps for it.
void NotifyClose(SocketContext* context);
