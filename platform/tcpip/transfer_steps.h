// The steps that a transfer is made of, whether its caller waits for it or a request is attempted.
#pragma once

#include <vector>

#include "platform/tcpip/kernel_socket.h"
#include "platform/tcpip/socket.h"

namespace tcpip {

/// The Winsock error of the kernel's, 0 for none. A reset is remembered.
int SendError(Socket& socket, int error);
int ReceiveError(Socket& socket, const kernel::Transfer& transfer, unsigned flags);

/// A send that reports an unreachable peer on behalf of an earlier datagram: the next receive tells it, as on
/// Windows, and this datagram goes out.
kernel::Transfer SendOnce(Socket& socket, const kernel::IoBuffer* buffers, std::size_t count, unsigned flags,
                          const Endpoint* to);

/// An empty receive on a stream is a question whether there is data, which the kernel would not wait for.
bool NothingReadable(const Socket& socket);

/// Moves past `bytes` of the list; done pieces are skipped, the first piece left is shortened.
void Advance(std::vector<kernel::IoBuffer>* buffers, std::size_t* first, std::size_t bytes);

}  // namespace tcpip
