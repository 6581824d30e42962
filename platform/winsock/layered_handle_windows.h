// What a Windows program that carries the host routes the functions of completion ports to.
#pragma once

#include <winsock2.h>

#include <windows.h>

namespace winsock_host {

/// CreateIoCompletionPort, also for handles that the host made.
HANDLE WINAPI HostCreateIoCompletionPort(HANDLE file, HANDLE port, ULONG_PTR key, DWORD threads);

/// GetQueuedCompletionStatus, which also fails for packets of failed requests on handles that the host made.
BOOL WINAPI HostGetQueuedCompletionStatus(HANDLE port, LPDWORD bytes, PULONG_PTR key,
                                          LPOVERLAPPED* overlapped, DWORD milliseconds);

}  // namespace winsock_host
