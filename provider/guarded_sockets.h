// The layer's calls on its own sockets and handles. Each goes through the ordinary Winsock API, catches
// whatever is raised inside the call, reports it on the debug output, sets WSAEFAULT and returns the call's
// failure value. Results and errors are otherwise the API's own, the error being in WSAGetLastError.
//
// SafeWSASocket, SafeCloseSocket and CloseSocketCompletely take SocketCreateCloseLock and come back into the
// layer: see the lock order in process_state.h for what must not be held.
#pragma once

#include <winsock2.h>

#include <mswsock.h>
#include <windows.h>

int SafeWSASend(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytesSent, DWORD flags,
                LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE completionRoutine);
int SafeWSARecv(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytesReceived, LPDWORD flags,
                LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE completionRoutine);

/// SOCKET_ERROR with WSAENOTSOCK, and no call, for 0 and INVALID_SOCKET.
int SafeShutdown(SOCKET s, int how);

/// 0, and no call, for 0 and INVALID_SOCKET.
int SafeCloseSocket(SOCKET s);

/// TRUE unless the call raised; no call for null and INVALID_HANDLE_VALUE.
BOOL SafeCloseHandle(HANDLE handle);

SOCKET SafeWSASocket(int family, int type, int protocol, LPWSAPROTOCOL_INFOA protocolInfo, GROUP group,
                     DWORD flags);
BOOL SafeWSAGetOverlappedResult(SOCKET s, LPWSAOVERLAPPED overlapped, LPDWORD bytes, BOOL wait,
                                LPDWORD flags);

/// The socket's own ConnectEx, fetched on every call; FALSE with WSAEFAULT when its provider has none.
BOOL SafeConnectEx(SOCKET s, const sockaddr* name, int namelen, PVOID sendBuffer, DWORD sendLength,
                   LPDWORD bytesSent, LPOVERLAPPED overlapped);
int SafeConnect(SOCKET s, const sockaddr* name, int namelen);
int SafeGetSockName(SOCKET s, sockaddr* name, int* namelen);
int SafeSetSockOpt(SOCKET s, int level, int option, const char* value, int length);
int SafeIoctlSocket(SOCKET s, LONG command, u_long* argument);
int SafeBind(SOCKET s, const sockaddr* name, int namelen);
int SafeListen(SOCKET s, int backlog);
BOOL SafeAcceptEx(SOCKET listener, SOCKET accepting, PVOID output, DWORD receiveLength, DWORD localLength,
                  DWORD remoteLength, LPDWORD bytesReceived, LPOVERLAPPED overlapped);

/// Shuts down and closes `s`, and stores INVALID_SOCKET in it. Failures on the way don't matter.
void CloseSocketCompletely(SOCKET& s);
