// The seam between the two halves of the preload: the front, which speaks of Linux' sockets, and the bridge,
// which speaks of Winsock's. Neither half's headers can be read together with the other's, so everything here
// is neutral: Winsock's handles are numbers, addresses are bytes in Linux' layout, errors are errno values.
//
// The bridge is a library of its own, loaded at a program's first TCP or UDP socket: a program that makes
// none pays for neither Winsock nor the layer. Its functions are called with the front's EngineCall around
// them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace preload {

using WinsockSocket = std::uintptr_t;

/// A piece of the caller's memory; the same layout as the kernel's own list element.
struct Piece {
    void* data;
    std::size_t size;
};

/// A socket's address as the kernel has it.
struct Address {
    alignas(8) unsigned char bytes[128];
    unsigned length = 0;
};

struct Transfer {
    std::size_t bytes = 0;
    int error = 0;
    bool truncated = false;  ///< a datagram was longer than the pieces
};

enum class Ends { Receive, Send, Both };

/// Options that Winsock shares with the kernel.
enum class SharedOption { KeepAlive, Broadcast, OutOfBandInline, NoDelay, SendBuffer, ReceiveBuffer };

constexpr unsigned kPeekFlag = 1;
constexpr unsigned kOutOfBandFlag = 2;

/// Not an errno value: Winsock, the layer or the base provider can't start.
constexpr int kCannotStart = -1;

/// What a call of the bridge that makes a socket tells.
struct MadeSocket {
    WinsockSocket socket = 0;
    int descriptor = -1;  ///< the kernel's, which stays the base provider's
};

/// Every function returns 0 or the error, unless it says otherwise. None of them waits, but for the analyzer.
struct Bridge {
    /// Loads the modules that Winsock will load, and tells an address in each library whose memory is the
    /// layer's own: the front keeps what these look like before they start.
    std::size_t (*load)(const void** addresses, std::size_t capacity);
    int (*start)();
    int (*make)(bool v6, bool stream, MadeSocket* made);
    /// Puts a duplicate of a descriptor, which is closed, in the place of the made socket's kernel socket.
    int (*adopt)(WinsockSocket socket, int duplicate);
    void (*close)(WinsockSocket socket);
    int (*bind)(WinsockSocket socket, const Address& local);
    int (*connect)(WinsockSocket socket, const Address& peer);  ///< EAGAIN: it is under way
    int (*listen)(WinsockSocket socket, int backlog);
    int (*accept)(WinsockSocket socket, MadeSocket* made, Address* peer);
    int (*shutdown)(WinsockSocket socket, Ends ends);
    int (*localName)(WinsockSocket socket, Address* name);
    int (*peerName)(WinsockSocket socket, Address* name);
    int (*takeError)(WinsockSocket socket, int* pending);
    int (*setOption)(WinsockSocket socket, SharedOption option, int value);
    int (*setLinger)(WinsockSocket socket, bool on, int seconds);
    Transfer (*send)(WinsockSocket socket, const Piece* pieces, std::size_t count, unsigned flags,
                     const Address* to);
    Transfer (*receive)(WinsockSocket socket, const Piece* pieces, std::size_t count, unsigned flags,
                        Address* from);
};

/// What the bridge's library exports.
constexpr const char* kBridgeName = "QxPreloadBridge";
using BridgeFunction = const Bridge* (*)();

}  // namespace preload
