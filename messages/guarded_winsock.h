// The Winsock calls that the layer makes on sockets of its own, guarded: an exception raised inside one
// becomes SOCKET_ERROR with last error WSAEFAULT. Any thread.
#pragma once

#include <winsock2.h>

#include <windows.h>

/// WSASend and WSARecv; an exception is traced.
int GuardedWSASend(SOCKET s, WSABUF* buffers, DWORD count, DWORD* bytesSent, DWORD flags,
                   WSAOVERLAPPED* overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) noexcept;
int GuardedWSARecv(SOCKET s, WSABUF* buffers, DWORD count, DWORD* bytesReceived, DWORD* flags,
                   WSAOVERLAPPED* overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) noexcept;

/// select. Any set may be null.
int GuardedSelect(fd_set* readable, fd_set* writable, fd_set* failed, timeval* timeout) noexcept;
