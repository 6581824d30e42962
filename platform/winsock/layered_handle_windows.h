// What a Windows program that carries the host routes CreateIoCompletionPort to.
#pragma once

#include <winsock2.h>

#include <windows.h>

namespace winsock_host {

/// CreateIoCompletionPort, also for handles that the host made.
HANDLE WINAPI HostCreateIoCompletionPort(HANDLE file, HANDLE port, ULONG_PTR key, DWORD threads);

}  // namespace winsock_host
