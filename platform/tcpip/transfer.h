// Sending and receiving: what the operations and the parked requests share.
#pragma once

#include "platform/tcpip/request.h"
#include "platform/tcpip/socket.h"

namespace tcpip {

/// The buffers of one call in the kernel's form; short lists need no memory.
class BufferList {
  public:
    /// Takes over at most `limit` bytes of the list. WSAEFAULT when it is null, else 0.
    int Assign(const WSABUF* buffers, DWORD count, DWORD limit);

    /// Drops the first `bytes`, which are fewer than there are.
    void Skip(std::size_t bytes);

    const kernel::IoBuffer* data() const { return count_ <= kInline ? inline_ : long_.data(); }
    std::size_t count() const { return count_; }
    std::size_t bytes() const { return bytes_; }

  private:
    static constexpr std::size_t kInline = 16;
    kernel::IoBuffer inline_[kInline];
    std::vector<kernel::IoBuffer> long_;
    std::size_t count_ = 0;
    std::size_t bytes_ = 0;
};

/// The kernel seam's flags for Windows' ones; WSAEOPNOTSUPP for one that the socket does not know.
int SendFlags(const Socket& socket, DWORD flags, unsigned* kernelFlags);
int ReceiveFlags(const Socket& socket, DWORD flags, unsigned* kernelFlags);

/// Whether data may be sent or received at all in the socket's present state: 0 or the Winsock error.
int CheckSendState(Socket& socket, bool hasDestination);
int CheckReceiveState(Socket& socket);

/// Where datagrams to `to` really go; remembers the way back. 0 or the Winsock error.
int RouteDatagram(Socket& socket, const Endpoint& to, Endpoint* target);

/// One send or receive that may block as the socket says. Errors are Winsock errors; WSAEMSGSIZE when a
/// datagram was truncated, with `*bytes` set. `from` may be null.
int SendNow(Socket& socket, const BufferList& buffers, unsigned flags, const Endpoint* to, DWORD* bytes);
int ReceiveNow(Socket& socket, const BufferList& buffers, unsigned flags, Endpoint* from, DWORD* bytes);

/// Sends all of a buffer on a stream before it returns, whatever the socket's mode is. 0 or a Winsock error.
int SendWhole(Socket& socket, const kernel::IoBuffer& buffer);

}  // namespace tcpip
