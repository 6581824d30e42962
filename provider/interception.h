// What the provider asks of the interception when an application's call needs a verdict or a look at its
// data. The relay folder defines these functions; the provider includes nothing of it. All of them run on the
// application's thread (or a look thread) with one reference on the context held by the caller and no
// other lock of the library held.
#pragma once

#include <winsock2.h>

#include <windows.h>

struct SocketContext;

/// Where one connect goes by its own verdict. The context's fields follow the verdicts of all threads that
/// connect the same socket.
struct ConnectTarget {
    enum class Way {
        kDirect,
        kThroughRelay,  ///< to the relay's listener, by a split that this connect made
        kToRelayAgain,  ///< to the relay's listener, by a split that an earlier connect made
        kRefused,
        kSplitFailed,
        kSocketClosed,
    };

    Way way = Way::kDirect;
    SOCKADDR_STORAGE name = {};
    int length = 0;  ///< of the name, as the application gave it, until a split replaces both
};

/// Asks the analyzer about a connect to `target->name`, unless the socket is exempt or no stream, and applies
/// its verdict to the context (`Blocked`, `RelayWanted`, `Split`, `RelayAddress` and the verdict flags) and
/// to
/// `*target`: the way, and the name to connect to, which a redirection replaces. A connection that is to be
/// split is split, and the name is the relay listener's; when that fails, everything that was made has been
/// released. When the analyzer can't be asked, or doesn't answer, the fail-connect policy decides; but a
/// socket that is being closed meanwhile connects nowhere. A socket that is split already goes to the relay's
/// listener again, and nobody is asked.
void InterceptConnect(SocketContext* context, ConnectTarget* target);

/// Closes and removes the relay connection of a split whose connect to the relay listener failed.
void AbandonSplit(SocketContext* context);

/// Whether received data of the socket is to be looked at, as things stand. Does not wait.
bool IsReceiveLookedAt(const SocketContext* context);

/// A look at received data of a stream socket, which may wait for the analyzer; `bytesReceived` may be null.
/// True when it is refused: `Blocked` is then set, too.
bool AnalyzeReceived(SocketContext* context, const WSABUF* buffers, DWORD count, const DWORD* bytesReceived);

/// A look at data about to be sent on a stream socket. May set `Blocked`.
void AnalyzeSent(SocketContext* context, const WSABUF* buffers, DWORD count);

/// As `AnalyzeReceived` for datagram sockets; `from` is a 128-byte copy of the peer's address or null.
bool AnalyzeReceivedFrom(SocketContext* context, const WSABUF* buffers, DWORD count,
                         const DWORD* bytesReceived, const sockaddr* from);

/// As `AnalyzeSent` for datagram sockets; `to` is a 128-byte copy of the destination or null.
void AnalyzeSentTo(SocketContext* context, const WSABUF* buffers, DWORD count, const sockaddr* to);

/// Reports a bind and applies the answer. May set `Blocked`.
void NotifyBind(SocketContext* context, const sockaddr* name, int namelen);

/// Reports the application's close of its socket and releases what the interception keeps for it.
void NotifyClose(SocketContext* context);

/// The socket has been disconnected and may be connected anew: it has no more to do with what it was
/// connected to.
void NotifyReuse(SocketContext* context);

/// Ends every wait for the analyzer on a socket that has been marked as closing, or WaitsEnd: no later one
/// begins.
void AbandonWaits(SocketContext* context);
