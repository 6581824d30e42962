// See guarded_winsock.h.
#include "messages/guarded_winsock.h"

#include <guarded_call.h>

#include "base/layer_call.h"
#include "base/trace.h"

int GuardedWSASend(SOCKET s, WSABUF* buffers, DWORD count, DWORD* bytesSent, DWORD flags,
                   WSAOVERLAPPED* overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) noexcept {
    const LayerCall layerCall;
    int result = SOCKET_ERROR;
    const bool completed =
        GuardedCall([&] { result = WSASend(s, buffers, count, bytesSent, flags, overlapped, routine); });
    if (completed) return result;
    Trace("WSASend EXCEPTION in thread: %d", static_cast<int>(GetCurrentThreadId()));
    WSASetLastError(WSAEFAULT);
    return SOCKET_ERROR;
}

int GuardedWSARecv(SOCKET s, WSABUF* buffers, DWORD count, DWORD* bytesReceived, DWORD* flags,
                   WSAOVERLAPPED* overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) noexcept {
    const LayerCall layerCall;
    int result = SOCKET_ERROR;
    const bool completed =
        GuardedCall([&] { result = WSARecv(s, buffers, count, bytesReceived, flags, overlapped, routine); });
    if (completed) return result;
    Trace("WSARecv EXCEPTION in thread: %d", static_cast<int>(GetCurrentThreadId()));
    WSASetLastError(WSAEFAULT);
    return SOCKET_ERROR;
}

int GuardedSelect(fd_set* readable, fd_set* writable, fd_set* failed, timeval* timeout) noexcept {
    const LayerCall layerCall;
    int result = SOCKET_ERROR;
    if (GuardedCall([&] { result = select(0, readable, writable, failed, timeout); })) return result;
    WSASetLastError(WSAEFAULT);
    return SOCKET_ERROR;
}
