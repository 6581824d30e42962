// The seam to the kernel: every system call of the base provider is made behind these functions, which know
// neither Windows' types nor its errors. Each is one system call unless it says otherwise; failures are errno
// values, 0 is success. Calls interrupted by a signal are made again. Nothing here locks or allocates (but
// for long buffer lists).
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/tcpip/endpoint.h"

namespace tcpip::kernel {

enum class Kind { Stream, Datagram };

/// A piece of the caller's memory; the same layout as the kernel's own list element.
struct IoBuffer {
    void* data;
    std::size_t size;
};

/// Result of a transfer: the byte count, or the error.
struct Transfer {
    std::size_t bytes = 0;
    int error = 0;
    bool truncated = false;  ///< a datagram was longer than the buffers; `bytes` is what fitted
};

// Flags of a transfer.
constexpr unsigned kDontWait = 0x01;
constexpr unsigned kPeek = 0x02;
constexpr unsigned kOutOfBand = 0x04;
constexpr unsigned kWaitAll = 0x08;
constexpr unsigned kDontRoute = 0x10;
constexpr unsigned kDatagram = 0x20;  ///< the socket keeps message boundaries

// Readiness, as in poll and epoll.
constexpr unsigned kReadable = 0x0001;
constexpr unsigned kPriority = 0x0002;
constexpr unsigned kWritable = 0x0004;
constexpr unsigned kError = 0x0008;
constexpr unsigned kHangUp = 0x0010;
constexpr unsigned kPeerClosed = 0x2000;

struct PollEntry {
    int fd;
    short want;
    short got;
};

enum class Option {
    SendBuffer,
    ReceiveBuffer,
    KeepAlive,
    Broadcast,
    ReuseAddress,
    OutOfBandInline,
    DontRoute,
    NoDelay,
    KeepIdleSeconds,
    KeepIntervalSeconds,
    MaxSegment,
    TypeOfService,
    DontFragment,
    V6Only,
    Listens,  ///< read only
};

/// The new descriptor (closed on exec), or -1 with `*error`. IPv6 sockets are IPv6 only: one more call.
int Create(bool v6, Kind kind, int* error);
void Close(int fd);

/// Puts the kernel socket `from` in the place of `to`; `from` is closed. Two calls.
int Replace(int from, int to);

int SetNonBlocking(int fd, bool nonBlocking);
int Bind(int fd, const Endpoint& local);
int Listen(int fd, int backlog);
int Connect(int fd, const Endpoint& peer);

/// Dissolves the association of a datagram socket, or a connection (with a reset).
int Unconnect(int fd);

/// The accepted descriptor, or -1 with `*error`.
int Accept(int fd, bool nonBlocking, Endpoint* peer, int* error);

enum class Direction { Receive, Send, Both };
int Shutdown(int fd, Direction direction);

int LocalName(int fd, Endpoint* local);

/// `to` null: to the connected peer. Never raises SIGPIPE.
Transfer Send(int fd, const IoBuffer* buffers, std::size_t count, unsigned flags, const Endpoint* to);

/// `from` may be null. With `kDatagram`, `truncated` tells that the datagram was longer.
Transfer Receive(int fd, const IoBuffer* buffers, std::size_t count, unsigned flags, Endpoint* from);

/// The number of ready entries; -1 with errno in `*error`. Negative `nanoseconds` wait for ever. A signal
/// ends the wait early with 0.
int Poll(PollEntry* entries, std::size_t count, std::int64_t nanoseconds, int* error);

int SetOption(int fd, Option option, int value);
int GetOption(int fd, Option option, int* value);

/// Takes the socket's pending error; it is cleared.
int TakeError(int fd);

int SetLinger(int fd, bool on, int seconds);

/// Bytes that a receive would find: all of a stream, the next datagram.
int BytesReadable(int fd, int* bytes);

/// Whether the next byte to be read follows the urgent mark.
int AtMark(int fd, bool* atMark);

}  // namespace tcpip::kernel
