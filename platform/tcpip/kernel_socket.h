// The seam to the kernel: every system call of the base provider is made behind these functions, which know
// neither Windows' types nor its errors. Each is one system call unless it says otherwise; failures are errno
// values, 0 is success. Calls interrupted by a signal are made again. Nothing here locks or allocates (but
// for long buffer lists).
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/tcpip/endpoint.h"

namespace tcpip::kernel {

enum class Kind { Stream, Datagram, Raw };

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
    Ttl,
    TypeOfService,
    MulticastTtl,
    MulticastLoop,
    DontFragment,
    V6Only,
    V6UnicastHops,
    V6MulticastHops,
    V6MulticastLoop,
};

/// The new descriptor (closed on exec), or -1 with `*error`. IPv6 sockets are IPv6 only: one more call.
int Create(bool v6, Kind kind, int protocol, int* error);
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

/// Joins or leaves a group on the loopback interface.
int ChangeMembership(int fd, const Endpoint& group, bool join);

/// Multicasts of this socket leave through the loopback interface only.
int SetMulticastLoopbackInterface(int fd, bool v6);

/// Bytes that a receive would find: all of a stream, the next datagram.
int BytesReadable(int fd, int* bytes);

/// Whether the next byte to be read follows the urgent mark.
int AtMark(int fd, bool* atMark);

// ---- Waking a waiter

/// A descriptor that is readable from a Raise, by any thread, to the next Drain.
class Signal {
  public:
    Signal() = default;
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;
    ~Signal() { Close(); }

    int Open();
    void Close();
    int fd() const { return fd_; }
    void Raise();
    void Drain();

  private:
    int fd_ = -1;
};

// ---- The reactor's wait

constexpr std::uint64_t kWakeTag = ~std::uint64_t{0};

struct ReadyEvent {
    std::uint64_t tag;
    unsigned events;
};

/// An edge-triggered interest list with a way to wake its waiter. Not copyable; any thread may call Add and
/// Wake.
class ReadyList {
  public:
    ReadyList() = default;
    ReadyList(const ReadyList&) = delete;
    ReadyList& operator=(const ReadyList&) = delete;
    ~ReadyList() { Close(); }

    /// On failure nothing is left open.
    int Open();
    void Close();

    /// Every readiness of `fd` is reported with `tag`, beginning with the present one. Ends when the fd is
    /// closed.
    int Add(int fd, std::uint64_t tag);
    void Wake() { wake_.Raise(); }

    /// Waits; the number of events stored. The wake-up is reported as `kWakeTag`.
    std::size_t Wait(ReadyEvent* events, std::size_t capacity, std::int64_t nanoseconds);

  private:
    int epoll_ = -1;
    Signal wake_;
};

}  // namespace tcpip::kernel
