// Requests to this provider alone, for a host whose program holds the kernel's descriptors itself.
#pragma once

#include <winsock2.h>

namespace tcpip {

/// WSAIoctl: writes the descriptor (an int) that the socket stands on, and leaves the socket to the kernel's
/// own rules from now on: ports are shared as the kernel shares them, and each of its errors is told once,
/// when the kernel tells it. The descriptor stays the socket's; the caller duplicates it.
constexpr DWORD kHandOutDescriptor = _WSAIOR(IOC_VENDOR, 0x5101);

/// WSAIoctl: takes a descriptor (an int) of an unconnected kernel socket of the same kind, which the process
/// did not get from here, in the place of the socket's own. It is closed, and the socket is bound or listens
/// as it was.
constexpr DWORD kTakeDescriptor = _WSAIOW(IOC_VENDOR, 0x5102);

}  // namespace tcpip
