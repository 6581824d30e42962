// Winsock as applications and layers call it. Every function here behaves as the Windows function that it is
// named for: arguments, results, and errors in the thread's last error. A call on a socket goes to the
// provider that made the socket; a layer's own sockets therefore come back to the layer.
//
// The functions have names of their own so that a Windows program can carry them beside the real ones and
// route a module's imports to them. Natively api_native.cpp gives them their public names. Any thread may
// call. WSANOTINITIALISED before the first WSAStartup; WSAENOTSOCK for a handle that is no socket. Only
// pointers that Winsock itself reads are checked (WSAEFAULT); all others are the provider's business.
#pragma once

#include <winsock2.h>

#include <mswsock.h>

namespace winsock_host {

// Start, end, catalog, addresses as text: session_api.cpp
int WSAAPI HostWSAStartup(WORD version, LPWSADATA data);
int WSAAPI HostWSACleanup();
int WSAAPI HostWSAEnumProtocolsA(LPINT protocols, LPWSAPROTOCOL_INFOA buffer, LPDWORD length);
int WSAAPI HostWSAEnumProtocolsW(LPINT protocols, LPWSAPROTOCOL_INFOW buffer, LPDWORD length);
INT WSAAPI HostWSAAddressToStringA(LPSOCKADDR address, DWORD addressLength, LPWSAPROTOCOL_INFOA info,
                                   LPSTR text, LPDWORD textLength);
INT WSAAPI HostWSAAddressToStringW(LPSOCKADDR address, DWORD addressLength, LPWSAPROTOCOL_INFOW info,
                                   LPWSTR text, LPDWORD textLength);
INT WSAAPI HostWSAStringToAddressA(LPSTR text, INT family, LPWSAPROTOCOL_INFOA info, LPSOCKADDR address,
                                   LPINT addressLength);
INT WSAAPI HostWSAStringToAddressW(LPWSTR text, INT family, LPWSAPROTOCOL_INFOW info, LPSOCKADDR address,
                                   LPINT addressLength);

// Sockets, from their making to their end: socket_api.cpp
SOCKET WSAAPI HostSocket(int family, int type, int protocol);
SOCKET WSAAPI HostWSASocketA(int family, int type, int protocol, LPWSAPROTOCOL_INFOA info, GROUP group,
                             DWORD flags);
SOCKET WSAAPI HostWSASocketW(int family, int type, int protocol, LPWSAPROTOCOL_INFOW info, GROUP group,
                             DWORD flags);
int WSAAPI HostCloseSocket(SOCKET s);
int WSAAPI HostBind(SOCKET s, const struct sockaddr* name, int nameLength);
int WSAAPI HostListen(SOCKET s, int backlog);
int WSAAPI HostConnect(SOCKET s, const struct sockaddr* name, int nameLength);
int WSAAPI HostWSAConnect(SOCKET s, const struct sockaddr* name, int nameLength, LPWSABUF callerData,
                          LPWSABUF calleeData, LPQOS socketQos, LPQOS groupQos);
SOCKET WSAAPI HostAccept(SOCKET s, struct sockaddr* address, int* addressLength);
SOCKET WSAAPI HostWSAAccept(SOCKET s, struct sockaddr* address, LPINT addressLength,
                            LPCONDITIONPROC condition, DWORD_PTR callbackData);
SOCKET WSAAPI HostWSAJoinLeaf(SOCKET s, const struct sockaddr* name, int nameLength, LPWSABUF callerData,
                              LPWSABUF calleeData, LPQOS socketQos, LPQOS groupQos, DWORD flags);
int WSAAPI HostShutdown(SOCKET s, int how);
int WSAAPI HostWSASendDisconnect(SOCKET s, LPWSABUF data);
int WSAAPI HostWSARecvDisconnect(SOCKET s, LPWSABUF data);
int WSAAPI HostWSADuplicateSocketA(SOCKET s, DWORD processId, LPWSAPROTOCOL_INFOA info);
int WSAAPI HostWSADuplicateSocketW(SOCKET s, DWORD processId, LPWSAPROTOCOL_INFOW info);

// What a socket knows and is told: option_api.cpp
int WSAAPI HostIoctlSocket(SOCKET s, LONG command, u_long* argument);
int WSAAPI HostWSAIoctl(SOCKET s, DWORD code, LPVOID in, DWORD inLength, LPVOID out, DWORD outLength,
                        LPDWORD returned, LPWSAOVERLAPPED overlapped,
                        LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);
int WSAAPI HostGetSockOpt(SOCKET s, int level, int option, char* value, int* length);
int WSAAPI HostSetSockOpt(SOCKET s, int level, int option, const char* value, int length);
int WSAAPI HostGetPeerName(SOCKET s, struct sockaddr* name, int* nameLength);
int WSAAPI HostGetSockName(SOCKET s, struct sockaddr* name, int* nameLength);
BOOL WSAAPI HostWSAGetQOSByName(SOCKET s, LPWSABUF name, LPQOS qos);

// Data: transfer_api.cpp
int WSAAPI HostSend(SOCKET s, const char* data, int length, int flags);
int WSAAPI HostSendTo(SOCKET s, const char* data, int length, int flags, const struct sockaddr* to,
                      int toLength);
int WSAAPI HostRecv(SOCKET s, char* data, int length, int flags);
int WSAAPI HostRecvFrom(SOCKET s, char* data, int length, int flags, struct sockaddr* from, int* fromLength);
int WSAAPI HostWSASend(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                       LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);
int WSAAPI HostWSASendTo(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                         const struct sockaddr* to, int toLength, LPWSAOVERLAPPED overlapped,
                         LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);
int WSAAPI HostWSARecv(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                       LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);
int WSAAPI HostWSARecvFrom(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                           struct sockaddr* from, LPINT fromLength, LPWSAOVERLAPPED overlapped,
                           LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);
BOOL WSAAPI HostWSAGetOverlappedResult(SOCKET s, LPWSAOVERLAPPED overlapped, LPDWORD bytes, BOOL wait,
                                       LPDWORD flags);

// Waiting for several sockets: event_api.cpp
int WSAAPI HostSelect(int count, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet,
                      const PTIMEVAL timeout);
int WSAAPI HostWSAFDIsSet(SOCKET s, fd_set* set);
int WSAAPI HostWSAAsyncSelect(SOCKET s, HWND window, unsigned int message, LONG events);
int WSAAPI HostWSAEventSelect(SOCKET s, WSAEVENT event, LONG events);
int WSAAPI HostWSAEnumNetworkEvents(SOCKET s, WSAEVENT event, LPWSANETWORKEVENTS events);
WSAEVENT WSAAPI HostWSACreateEvent();
BOOL WSAAPI HostWSACloseEvent(WSAEVENT event);
BOOL WSAAPI HostWSASetEvent(WSAEVENT event);
BOOL WSAAPI HostWSAResetEvent(WSAEVENT event);
DWORD WSAAPI HostWSAWaitForMultipleEvents(DWORD count, const WSAEVENT* events, BOOL waitAll,
                                          DWORD milliseconds, BOOL alertable);

// The extension functions under their own names: extension_api.cpp
BOOL WINAPI HostAcceptEx(SOCKET listener, SOCKET accepting, PVOID output, DWORD receiveLength,
                         DWORD localLength, DWORD remoteLength, LPDWORD received, LPOVERLAPPED overlapped);
VOID WINAPI HostGetAcceptExSockaddrs(PVOID output, DWORD receiveLength, DWORD localLength, DWORD remoteLength,
                                     struct sockaddr** local, LPINT localSize, struct sockaddr** remote,
                                     LPINT remoteSize);
BOOL WINAPI HostTransmitFile(SOCKET s, HANDLE file, DWORD bytes, DWORD bytesPerSend, LPOVERLAPPED overlapped,
                             LPTRANSMIT_FILE_BUFFERS buffers, DWORD flags);

}  // namespace winsock_host
