// The handles that Winsock makes for providers without sockets of their own. Such a handle is a real handle
// of the process, so its value collides with no other, it can be associated with a completion port, and a
// request that the provider completes can be announced there. Defined per target: natively a file object; on
// Windows, where a program cannot make such a file object, an event object and a table of ports.
//
// Any thread may call; no lock of the host is held.
#pragma once

#include <winsock2.h>

#include <windows.h>

namespace winsock_host {

/// A new handle; INVALID_SOCKET without memory.
SOCKET CreateLayeredHandle() noexcept;

void CloseLayeredHandle(SOCKET handle) noexcept;

/// Queues a packet to the port that `handle` is associated with, if any. `error` is 0 or a system error. The
/// record behind `overlapped` is not touched.
void AnnounceCompletion(SOCKET handle, OVERLAPPED* overlapped, DWORD bytes, DWORD error) noexcept;

}  // namespace winsock_host
