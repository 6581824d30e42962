// The 30 operations of the procedure table, and the extension functions. Each behaves as the Windows
// documentation of the SPI function of the same name says; what is left out stands in README.md. Any thread
// may call any of them.
#pragma once

#include <winsock2.h>

#include <mswsock.h>
#include <ws2spi.h>

#include "platform/tcpip/provider.h"
#include "platform/tcpip/socket.h"

namespace tcpip {

// startup.cpp
int WSPAPI TcpipCleanup(LPINT lpErrno);
SOCKET WSPAPI TcpipSocket(int af, int type, int protocol, LPWSAPROTOCOL_INFOW info, GROUP group, DWORD flags,
                          LPINT lpErrno);
int WSPAPI TcpipCloseSocket(SOCKET s, LPINT lpErrno);
int WSPAPI TcpipDuplicateSocket(SOCKET s, DWORD processId, LPWSAPROTOCOL_INFOW info, LPINT lpErrno);

// connection_operations.cpp
int WSPAPI TcpipBind(SOCKET s, const sockaddr* name, int namelen, LPINT lpErrno);
int WSPAPI TcpipListen(SOCKET s, int backlog, LPINT lpErrno);
int WSPAPI TcpipConnect(SOCKET s, const sockaddr* name, int namelen, LPWSABUF callerData, LPWSABUF calleeData,
                        LPQOS sqos, LPQOS gqos, LPINT lpErrno);
int WSPAPI TcpipShutdown(SOCKET s, int how, LPINT lpErrno);
int WSPAPI TcpipSendDisconnect(SOCKET s, LPWSABUF data, LPINT lpErrno);
int WSPAPI TcpipRecvDisconnect(SOCKET s, LPWSABUF data, LPINT lpErrno);
int WSPAPI TcpipGetSockName(SOCKET s, sockaddr* name, LPINT namelen, LPINT lpErrno);
int WSPAPI TcpipGetPeerName(SOCKET s, sockaddr* name, LPINT namelen, LPINT lpErrno);
SOCKET WSPAPI TcpipJoinLeaf(SOCKET s, const sockaddr* name, int namelen, LPWSABUF callerData,
                            LPWSABUF calleeData, LPQOS sqos, LPQOS gqos, DWORD flags, LPINT lpErrno);

// accept_operation.cpp
SOCKET WSPAPI TcpipAccept(SOCKET s, sockaddr* name, LPINT namelen, LPCONDITIONPROC condition,
                          DWORD_PTR callbackData, LPINT lpErrno);

// transfer_operations.cpp
int WSPAPI TcpipSend(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                     LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine,
                     LPWSATHREADID thread, LPINT lpErrno);
int WSPAPI TcpipSendTo(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags, const sockaddr* to,
                       int toLength, LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine,
                       LPWSATHREADID thread, LPINT lpErrno);
int WSPAPI TcpipRecv(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                     LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine,
                     LPWSATHREADID thread, LPINT lpErrno);
int WSPAPI TcpipRecvFrom(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                         sockaddr* from, LPINT fromLength, LPWSAOVERLAPPED overlapped,
                         LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, LPWSATHREADID thread, LPINT lpErrno);
BOOL WSPAPI TcpipGetOverlappedResult(SOCKET s, LPWSAOVERLAPPED overlapped, LPDWORD transferred, BOOL wait,
                                     LPDWORD flags, LPINT lpErrno);

// select_operation.cpp
int WSPAPI TcpipSelect(int nfds, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, const PTIMEVAL timeout,
                       LPINT lpErrno);

// events.cpp
int WSPAPI TcpipAsyncSelect(SOCKET s, HWND window, unsigned int message, LONG mask, LPINT lpErrno);
int WSPAPI TcpipEventSelect(SOCKET s, WSAEVENT event, LONG mask, LPINT lpErrno);
int WSPAPI TcpipEnumNetworkEvents(SOCKET s, WSAEVENT event, LPWSANETWORKEVENTS events, LPINT lpErrno);

/// What WSPEventSelect and WSPAsyncSelect do, also for a socket accepted from one with events. 0 or a
/// Winsock error.
int SelectEvents(Socket& socket, const EventTarget& target, LONG mask);

// option_operations.cpp
int WSPAPI TcpipGetSockOpt(SOCKET s, int level, int name, char* value, LPINT length, LPINT lpErrno);
int WSPAPI TcpipSetSockOpt(SOCKET s, int level, int name, const char* value, int length, LPINT lpErrno);

// ioctl_operation.cpp
int WSPAPI TcpipIoctl(SOCKET s, DWORD code, LPVOID in, DWORD inLength, LPVOID out, DWORD outLength,
                      LPDWORD returned, LPWSAOVERLAPPED overlapped,
                      LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, LPWSATHREADID thread, LPINT lpErrno);

// text_operations.cpp
INT WSPAPI TcpipAddressToString(LPSOCKADDR address, DWORD addressLength, LPWSAPROTOCOL_INFOW info,
                                LPWSTR text, LPDWORD textLength, LPINT lpErrno);
INT WSPAPI TcpipStringToAddress(LPWSTR text, INT family, LPWSAPROTOCOL_INFOW info, LPSOCKADDR address,
                                LPINT addressLength, LPINT lpErrno);
BOOL WSPAPI TcpipGetQOSByName(SOCKET s, LPWSABUF name, LPQOS qos, LPINT lpErrno);
int WSPAPI TcpipCancelBlockingCall(LPINT lpErrno);

// extension_functions.cpp: they report their error as the thread's last error.
BOOL WINAPI TcpipAcceptEx(SOCKET listener, SOCKET accepting, PVOID output, DWORD receiveLength,
                          DWORD localLength, DWORD remoteLength, LPDWORD received, LPOVERLAPPED overlapped);
VOID WINAPI TcpipGetAcceptExSockaddrs(PVOID output, DWORD receiveLength, DWORD localLength,
                                      DWORD remoteLength, sockaddr** local, LPINT localSize,
                                      sockaddr** remote, LPINT remoteSize);
BOOL WINAPI TcpipConnectEx(SOCKET s, const sockaddr* name, int namelen, PVOID data, DWORD dataLength,
                           LPDWORD sent, LPOVERLAPPED overlapped);
BOOL WINAPI TcpipDisconnectEx(SOCKET s, LPOVERLAPPED overlapped, DWORD flags, DWORD reserved);
INT WINAPI TcpipRecvMsg(SOCKET s, LPWSAMSG message, LPDWORD received, LPOVERLAPPED overlapped,
                        LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);
INT WINAPI TcpipSendMsg(SOCKET s, LPWSAMSG message, DWORD flags, LPDWORD sent, LPOVERLAPPED overlapped,
                        LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);

// transmit_functions.cpp: as these.
BOOL WINAPI TcpipTransmitFile(SOCKET s, HANDLE file, DWORD size, DWORD sizePerSend, LPOVERLAPPED overlapped,
                              LPTRANSMIT_FILE_BUFFERS buffers, DWORD flags);
BOOL WINAPI TcpipTransmitPackets(SOCKET s, LPTRANSMIT_PACKETS_ELEMENT elements, DWORD count, DWORD sendSize,
                                 LPOVERLAPPED overlapped, DWORD flags);

/// The extension function with that id, or null.
void* FindExtensionFunction(const GUID& id);

/// Connects a stream: what WSPConnect and ConnectEx share. Blocks only when `mayBlock`. 0, WSAEWOULDBLOCK
/// when the connect is under way, or another Winsock error.
int ConnectStream(Socket& socket, const Endpoint& peer, bool mayBlock);

}  // namespace tcpip
