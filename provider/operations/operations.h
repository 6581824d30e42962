// The operations that the layer hands to Winsock, by their names in Winsock's service provider interface,
// which also defines their arguments: a result of 0, a handle, SOCKET_ERROR or INVALID_SOCKET, the error in
// the last argument. Nothing is thrown out of them. Any thread may call any of them at any time; the layer's
// own sockets come in here too, with the locks that process_state.h allows.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <windows.h>

// ---- Sockets: made, accepted, joined, given to another process

SOCKET WSPAPI WSPSocket(int family, int type, int protocol, LPWSAPROTOCOL_INFOW info, GROUP group,
                        DWORD flags, LPINT error);
SOCKET WSPAPI WSPAccept(SOCKET s, sockaddr* address, LPINT addressLength, LPCONDITIONPROC condition,
                        DWORD_PTR callbackData, LPINT error);
SOCKET WSPAPI WSPJoinLeaf(SOCKET s, const sockaddr* name, int namelen, LPWSABUF callerData,
                          LPWSABUF calleeData, LPQOS sendQos, LPQOS groupQos, DWORD flags, LPINT error);
int WSPAPI WSPDuplicateSocket(SOCKET s, DWORD processId, LPWSAPROTOCOL_INFOW info, LPINT error);

// ---- Intercepted: the analyzer may be asked or told

int WSPAPI WSPConnect(SOCKET s, const sockaddr* name, int namelen, LPWSABUF callerData, LPWSABUF calleeData,
                      LPQOS sendQos, LPQOS groupQos, LPINT error);
int WSPAPI WSPBind(SOCKET s, const sockaddr* name, int namelen, LPINT error);
int WSPAPI WSPCloseSocket(SOCKET s, LPINT error);
int WSPAPI WSPRecv(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytesReceived, LPDWORD flags,
                   LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE completionRoutine,
                   LPWSATHREADID threadId, LPINT error);
int WSPAPI WSPRecvFrom(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytesReceived, LPDWORD flags,
                       sockaddr* from, LPINT fromLength, LPWSAOVERLAPPED overlapped,
                       LPWSAOVERLAPPED_COMPLETION_ROUTINE completionRoutine, LPWSATHREADID threadId,
                       LPINT error);
int WSPAPI WSPSend(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytesSent, DWORD flags,
                   LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE completionRoutine,
                   LPWSATHREADID threadId, LPINT error);
int WSPAPI WSPSendTo(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytesSent, DWORD flags,
                     const sockaddr* to, int toLength, LPWSAOVERLAPPED overlapped,
                     LPWSAOVERLAPPED_COMPLETION_ROUTINE completionRoutine, LPWSATHREADID threadId,
                     LPINT error);

// ---- Answered or changed by the layer

int WSPAPI WSPSelect(int nfds, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, const PTIMEVAL timeout,
                     LPINT error);
int WSPAPI WSPIoctl(SOCKET s, DWORD code, LPVOID input, DWORD inputLength, LPVOID output, DWORD outputLength,
                    LPDWORD bytesReturned, LPWSAOVERLAPPED overlapped,
                    LPWSAOVERLAPPED_COMPLETION_ROUTINE completionRoutine, LPWSATHREADID threadId,
                    LPINT error);
BOOL WSPAPI WSPGetOverlappedResult(SOCKET s, LPWSAOVERLAPPED overlapped, LPDWORD bytes, BOOL wait,
                                   LPDWORD flags, LPINT error);
int WSPAPI WSPGetPeerName(SOCKET s, sockaddr* name, LPINT namelen, LPINT error);
int WSPAPI WSPGetSockOpt(SOCKET s, int level, int option, char* value, LPINT length, LPINT error);
int WSPAPI WSPSetSockOpt(SOCKET s, int level, int option, const char* value, int length, LPINT error);
INT WSPAPI WSPAddressToString(LPSOCKADDR address, DWORD addressLength, LPWSAPROTOCOL_INFOW info, LPWSTR text,
                              LPDWORD textLength, LPINT error);
INT WSPAPI WSPStringToAddress(LPWSTR text, INT family, LPWSAPROTOCOL_INFOW info, LPSOCKADDR address,
                              LPINT addressLength, LPINT error);
int WSPAPI WSPAsyncSelect(SOCKET s, HWND window, unsigned int message, LONG events, LPINT error);
int WSPAPI WSPCancelBlockingCall(LPINT error);
int WSPAPI WSPCleanup(LPINT error);

// ---- Forwarded

int WSPAPI WSPEnumNetworkEvents(SOCKET s, WSAEVENT event, LPWSANETWORKEVENTS networkEvents, LPINT error);
int WSPAPI WSPEventSelect(SOCKET s, WSAEVENT event, LONG networkEvents, LPINT error);
int WSPAPI WSPGetSockName(SOCKET s, sockaddr* name, LPINT namelen, LPINT error);
BOOL WSPAPI WSPGetQOSByName(SOCKET s, LPWSABUF qosName, LPQOS qos, LPINT error);
int WSPAPI WSPListen(SOCKET s, int backlog, LPINT error);
int WSPAPI WSPRecvDisconnect(SOCKET s, LPWSABUF inboundData, LPINT error);
int WSPAPI WSPSendDisconnect(SOCKET s, LPWSABUF outboundData, LPINT error);
int WSPAPI WSPShutdown(SOCKET s, int how, LPINT error);
