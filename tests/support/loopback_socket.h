// The seam to the machine's own sockets, which on neither target are the ones that programs see: no header of
// both kinds of sockets can be included in one file. Descriptors of the target's own; any thread may call.
#pragma once

#include <cstddef>
#include <cstdint>

namespace loopback_socket {

/// A stream socket bound to 127.0.0.1 and a port that the system chooses. Ends the process when there is
/// none: a test can't go on without its other side.
int Bind(std::uint16_t& port);

/// A stream connected to a port of 127.0.0.1; -1 when nobody listens there.
int Connect(std::uint16_t port);

/// The port, from `first` on and below `limit`, on which this process listens; 0 when it does on none.
std::uint16_t FindOwnListener(std::uint16_t first, std::uint16_t limit);

/// Closes a descriptor; -1 is none.
void Close(int descriptor);

/// Up to `size` bytes; 0 at the end of the connection and for every error.
std::size_t Receive(int descriptor, void* destination, std::size_t size);
std::size_t Send(int descriptor, const void* source, std::size_t size);

/// Whoever reads or writes is told of the end.
void Shutdown(int descriptor);

/// Whoever reads is told of an end; the peer is told nothing.
void StopReading(int descriptor);

/// Ends the connection by a reset. What is left to close afterwards, or -1.
int Reset(int descriptor);

void Listen(int descriptor, int backlog);

/// The next connection, with small writes sent at once; -1 once interrupted.
int Accept(int listener);

bool HasConnection(int listener);

/// Ends the Accept that waits, or the next.
void InterruptAccept(int listener, std::uint16_t port);

}  // namespace loopback_socket
