// What the replaced calls share: the making of a descriptor for a Winsock socket, and addresses.
#pragma once

#include <sys/socket.h>

#include <cerrno>

#include "platform/preload/bridge.h"
#include "platform/preload/descriptor_table.h"

// A function that stands in the place of libc's.
#define QX_REPLACES extern "C" __attribute__((visibility("default")))

namespace preload {

/// Reports an error as libc does. 0 is success.
inline int Result(int error) {
    if (error == 0) return 0;
    errno = error;
    return -1;
}

/// Moves a descriptor of the layer's own out of the way of the program's, which are to be numbered as without
/// it, and marks it. The new descriptor; a failed one (negative) is passed on.
int KeepInternal(int descriptor);

/// A descriptor of the program's for a socket that the engine made, with the flags of socket() or accept4().
/// -1 with errno; then the socket is closed.
int Publish(const MadeSocket& made, bool v6, bool stream, int flags);

/// A TCP or UDP socket without a connection that this process did not make, but was born or started with,
/// goes through the engine from now on. Does nothing for any other descriptor.
void AdoptInherited(int descriptor);

/// 0, or the error of an address that is no address of the socket's family. `*address` is a copy.
int ReadAddress(const SocketRecord& record, const sockaddr* name, socklen_t length, Address* address);

/// Copies what there is room for, and tells the whole length, as the kernel does. 0 or the error.
int WriteAddress(const Address& address, sockaddr* name, socklen_t* length);

inline bool IsInternet(const sockaddr* name) {
    return name->sa_family == AF_INET || name->sa_family == AF_INET6;
}
unsigned short FamilyOf(const Address& address);
unsigned short PortOf(const Address& address);
bool IsLoopback(const Address& address);

/// The program's descriptor blocks or not; the kernel's mode is always what the program sees.
void SetKernelMode(int descriptor, bool nonBlocking);

}  // namespace preload
