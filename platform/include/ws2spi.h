// The interface between Winsock and its providers: the 30 operations of a provider, the 15 upcalls, and the
// functions that a layered provider asks about the catalog. Names, order and layouts are Windows' own; both
// tables are copied as plain memory between modules, so their order is part of the interface.
#pragma once

#include <winsock2.h>

#define WSPAPI WSAAPI
#define WSPDESCRIPTION_LEN 255
#define WSS_OPERATION_IN_PROGRESS 0x00000103

typedef struct WSPDATA {
    WORD wVersion;
    WORD wHighVersion;
    WCHAR szDescription[WSPDESCRIPTION_LEN + 1];
} * LPWSPDATA;

typedef struct WSATHREADID {
    HANDLE ThreadHandle;
    DWORD_PTR Reserved;
} * LPWSATHREADID;

typedef BOOL(CALLBACK* LPBLOCKINGCALLBACK)(DWORD_PTR dwContext);
typedef VOID(CALLBACK* LPWSAUSERAPC)(DWORD_PTR dwContext);

// ---- Operations of a provider

typedef SOCKET(WSPAPI* LPWSPACCEPT)(SOCKET s, struct sockaddr* addr, LPINT addrlen,
                                    LPCONDITIONPROC lpfnCondition, DWORD_PTR dwCallbackData, LPINT lpErrno);
typedef INT(WSPAPI* LPWSPADDRESSTOSTRING)(LPSOCKADDR lpsaAddress, DWORD dwAddressLength,
                                          LPWSAPROTOCOL_INFOW lpProtocolInfo, LPWSTR lpszAddressString,
                                          LPDWORD lpdwAddressStringLength, LPINT lpErrno);
typedef int(WSPAPI* LPWSPASYNCSELECT)(SOCKET s, HWND hWnd, unsigned int wMsg, LONG lEvent, LPINT lpErrno);
typedef int(WSPAPI* LPWSPBIND)(SOCKET s, const struct sockaddr* name, int namelen, LPINT lpErrno);
typedef int(WSPAPI* LPWSPCANCELBLOCKINGCALL)(LPINT lpErrno);
typedef int(WSPAPI* LPWSPCLEANUP)(LPINT lpErrno);
typedef int(WSPAPI* LPWSPCLOSESOCKET)(SOCKET s, LPINT lpErrno);
typedef int(WSPAPI* LPWSPCONNECT)(SOCKET s, const struct sockaddr* name, int namelen, LPWSABUF lpCallerData,
                                  LPWSABUF lpCalleeData, LPQOS lpSQOS, LPQOS lpGQOS, LPINT lpErrno);
typedef int(WSPAPI* LPWSPDUPLICATESOCKET)(SOCKET s, DWORD dwProcessId, LPWSAPROTOCOL_INFOW lpProtocolInfo,
                                          LPINT lpErrno);
typedef int(WSPAPI* LPWSPENUMNETWORKEVENTS)(SOCKET s, WSAEVENT hEventObject,
                                            LPWSANETWORKEVENTS lpNetworkEvents, LPINT lpErrno);
typedef int(WSPAPI* LPWSPEVENTSELECT)(SOCKET s, WSAEVENT hEventObject, LONG lNetworkEvents, LPINT lpErrno);
typedef BOOL(WSPAPI* LPWSPGETOVERLAPPEDRESULT)(SOCKET s, LPWSAOVERLAPPED lpOverlapped, LPDWORD lpcbTransfer,
                                               BOOL fWait, LPDWORD lpdwFlags, LPINT lpErrno);
typedef int(WSPAPI* LPWSPGETPEERNAME)(SOCKET s, struct sockaddr* name, LPINT namelen, LPINT lpErrno);
typedef int(WSPAPI* LPWSPGETSOCKNAME)(SOCKET s, struct sockaddr* name, LPINT namelen, LPINT lpErrno);
typedef int(WSPAPI* LPWSPGETSOCKOPT)(SOCKET s, int level, int optname, char* optval, LPINT optlen,
                                     LPINT lpErrno);
typedef BOOL(WSPAPI* LPWSPGETQOSBYNAME)(SOCKET s, LPWSABUF lpQOSName, LPQOS lpQOS, LPINT lpErrno);
typedef int(WSPAPI* LPWSPIOCTL)(SOCKET s, DWORD dwIoControlCode, LPVOID lpvInBuffer, DWORD cbInBuffer,
                                LPVOID lpvOutBuffer, DWORD cbOutBuffer, LPDWORD lpcbBytesReturned,
                                LPWSAOVERLAPPED lpOverlapped,
                                LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine,
                                LPWSATHREADID lpThreadId, LPINT lpErrno);
typedef SOCKET(WSPAPI* LPWSPJOINLEAF)(SOCKET s, const struct sockaddr* name, int namelen,
                                      LPWSABUF lpCallerData, LPWSABUF lpCalleeData, LPQOS lpSQOS,
                                      LPQOS lpGQOS, DWORD dwFlags, LPINT lpErrno);
typedef int(WSPAPI* LPWSPLISTEN)(SOCKET s, int backlog, LPINT lpErrno);
typedef int(WSPAPI* LPWSPRECV)(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount,
                               LPDWORD lpNumberOfBytesRecvd, LPDWORD lpFlags, LPWSAOVERLAPPED lpOverlapped,
                               LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine,
                               LPWSATHREADID lpThreadId, LPINT lpErrno);
typedef int(WSPAPI* LPWSPRECVDISCONNECT)(SOCKET s, LPWSABUF lpInboundDisconnectData, LPINT lpErrno);
typedef int(WSPAPI* LPWSPRECVFROM)(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount,
                                   LPDWORD lpNumberOfBytesRecvd, LPDWORD lpFlags, struct sockaddr* lpFrom,
                                   LPINT lpFromlen, LPWSAOVERLAPPED lpOverlapped,
                                   LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine,
                                   LPWSATHREADID lpThreadId, LPINT lpErrno);
typedef int(WSPAPI* LPWSPSELECT)(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
                                 const PTIMEVAL timeout, LPINT lpErrno);
typedef int(WSPAPI* LPWSPSEND)(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount, LPDWORD lpNumberOfBytesSent,
                               DWORD dwFlags, LPWSAOVERLAPPED lpOverlapped,
                               LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine,
                               LPWSATHREADID lpThreadId, LPINT lpErrno);
typedef int(WSPAPI* LPWSPSENDDISCONNECT)(SOCKET s, LPWSABUF lpOutboundDisconnectData, LPINT lpErrno);
typedef int(WSPAPI* LPWSPSENDTO)(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount,
                                 LPDWORD lpNumberOfBytesSent, DWORD dwFlags, const struct sockaddr* lpTo,
                                 int iTolen, LPWSAOVERLAPPED lpOverlapped,
                                 LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine,
                                 LPWSATHREADID lpThreadId, LPINT lpErrno);
typedef int(WSPAPI* LPWSPSETSOCKOPT)(SOCKET s, int level, int optname, const char* optval, int optlen,
                                     LPINT lpErrno);
typedef int(WSPAPI* LPWSPSHUTDOWN)(SOCKET s, int how, LPINT lpErrno);
typedef SOCKET(WSPAPI* LPWSPSOCKET)(int af, int type, int protocol, LPWSAPROTOCOL_INFOW lpProtocolInfo,
                                    GROUP g, DWORD dwFlags, LPINT lpErrno);
typedef INT(WSPAPI* LPWSPSTRINGTOADDRESS)(LPWSTR AddressString, INT AddressFamily,
                                          LPWSAPROTOCOL_INFOW lpProtocolInfo, LPSOCKADDR lpAddress,
                                          LPINT lpAddressLength, LPINT lpErrno);

typedef struct WSPPROC_TABLE {
    LPWSPACCEPT lpWSPAccept;
    LPWSPADDRESSTOSTRING lpWSPAddressToString;
    LPWSPASYNCSELECT lpWSPAsyncSelect;
    LPWSPBIND lpWSPBind;
    LPWSPCANCELBLOCKINGCALL lpWSPCancelBlockingCall;
    LPWSPCLEANUP lpWSPCleanup;
    LPWSPCLOSESOCKET lpWSPCloseSocket;
    LPWSPCONNECT lpWSPConnect;
    LPWSPDUPLICATESOCKET lpWSPDuplicateSocket;
    LPWSPENUMNETWORKEVENTS lpWSPEnumNetworkEvents;
    LPWSPEVENTSELECT lpWSPEventSelect;
    LPWSPGETOVERLAPPEDRESULT lpWSPGetOverlappedResult;
    LPWSPGETPEERNAME lpWSPGetPeerName;
    LPWSPGETSOCKNAME lpWSPGetSockName;
    LPWSPGETSOCKOPT lpWSPGetSockOpt;
    LPWSPGETQOSBYNAME lpWSPGetQOSByName;
    LPWSPIOCTL lpWSPIoctl;
    LPWSPJOINLEAF lpWSPJoinLeaf;
    LPWSPLISTEN lpWSPListen;
    LPWSPRECV lpWSPRecv;
    LPWSPRECVDISCONNECT lpWSPRecvDisconnect;
    LPWSPRECVFROM lpWSPRecvFrom;
    LPWSPSELECT lpWSPSelect;
    LPWSPSEND lpWSPSend;
    LPWSPSENDDISCONNECT lpWSPSendDisconnect;
    LPWSPSENDTO lpWSPSendTo;
    LPWSPSETSOCKOPT lpWSPSetSockOpt;
    LPWSPSHUTDOWN lpWSPShutdown;
    LPWSPSOCKET lpWSPSocket;
    LPWSPSTRINGTOADDRESS lpWSPStringToAddress;
} * LPWSPPROC_TABLE;

// ---- Upcalls of Winsock

typedef BOOL(WSPAPI* LPWPUCLOSEEVENT)(WSAEVENT hEvent, LPINT lpErrno);
typedef int(WSPAPI* LPWPUCLOSESOCKETHANDLE)(SOCKET s, LPINT lpErrno);
typedef WSAEVENT(WSPAPI* LPWPUCREATEEVENT)(LPINT lpErrno);
typedef SOCKET(WSPAPI* LPWPUCREATESOCKETHANDLE)(DWORD dwCatalogEntryId, DWORD_PTR dwContext, LPINT lpErrno);
typedef int(WSPAPI* LPWPUFDISSET)(SOCKET s, fd_set* fdset);
typedef int(WSPAPI* LPWPUGETPROVIDERPATH)(LPGUID lpProviderId, WCHAR* lpszProviderDllPath,
                                          LPINT lpProviderDllPathLen, LPINT lpErrno);
typedef SOCKET(WSPAPI* LPWPUMODIFYIFSHANDLE)(DWORD dwCatalogEntryId, SOCKET ProposedHandle, LPINT lpErrno);
typedef BOOL(WSPAPI* LPWPUPOSTMESSAGE)(HWND hWnd, UINT Msg, WPARAM wParam, LPARAM lParam);
typedef int(WSPAPI* LPWPUQUERYBLOCKINGCALLBACK)(DWORD dwCatalogEntryId, LPBLOCKINGCALLBACK* lplpfnCallback,
                                                PDWORD_PTR lpdwContext, LPINT lpErrno);
typedef int(WSPAPI* LPWPUQUERYSOCKETHANDLECONTEXT)(SOCKET s, PDWORD_PTR lpContext, LPINT lpErrno);
typedef int(WSPAPI* LPWPUQUEUEAPC)(LPWSATHREADID lpThreadId, LPWSAUSERAPC lpfnUserApc, DWORD_PTR dwContext,
                                   LPINT lpErrno);
typedef BOOL(WSPAPI* LPWPURESETEVENT)(WSAEVENT hEvent, LPINT lpErrno);
typedef BOOL(WSPAPI* LPWPUSETEVENT)(WSAEVENT hEvent, LPINT lpErrno);
typedef int(WSPAPI* LPWPUOPENCURRENTTHREAD)(LPWSATHREADID lpThreadId, LPINT lpErrno);
typedef int(WSPAPI* LPWPUCLOSETHREAD)(LPWSATHREADID lpThreadId, LPINT lpErrno);
typedef int(WSPAPI* LPWPUCOMPLETEOVERLAPPEDREQUEST)(SOCKET s, LPWSAOVERLAPPED lpOverlapped, DWORD dwError,
                                                    DWORD cbTransferred, LPINT lpErrno);

typedef struct WSPUPCALLTABLE {
    LPWPUCLOSEEVENT lpWPUCloseEvent;
    LPWPUCLOSESOCKETHANDLE lpWPUCloseSocketHandle;
    LPWPUCREATEEVENT lpWPUCreateEvent;
    LPWPUCREATESOCKETHANDLE lpWPUCreateSocketHandle;
    LPWPUFDISSET lpWPUFDIsSet;
    LPWPUGETPROVIDERPATH lpWPUGetProviderPath;
    LPWPUMODIFYIFSHANDLE lpWPUModifyIFSHandle;
    LPWPUPOSTMESSAGE lpWPUPostMessage;
    LPWPUQUERYBLOCKINGCALLBACK lpWPUQueryBlockingCallback;
    LPWPUQUERYSOCKETHANDLECONTEXT lpWPUQuerySocketHandleContext;
    LPWPUQUEUEAPC lpWPUQueueApc;
    LPWPURESETEVENT lpWPUResetEvent;
    LPWPUSETEVENT lpWPUSetEvent;
    LPWPUOPENCURRENTTHREAD lpWPUOpenCurrentThread;
    LPWPUCLOSETHREAD lpWPUCloseThread;
} * LPWSPUPCALLTABLE;

static_assert(sizeof(WSPPROC_TABLE) == 30 * sizeof(void*) && sizeof(WSPUPCALLTABLE) == 15 * sizeof(void*));

// ---- Functions

typedef int(WSPAPI* LPWSPSTARTUP)(WORD wVersionRequested, LPWSPDATA lpWSPData,
                                  LPWSAPROTOCOL_INFOW lpProtocolInfo, WSPUPCALLTABLE UpcallTable,
                                  LPWSPPROC_TABLE lpProcTable);

/// Every provider module defines and exports this one.
extern "C" int WSPAPI WSPStartup(WORD wVersionRequested, LPWSPDATA lpWSPData,
                                 LPWSAPROTOCOL_INFOW lpProtocolInfo, WSPUPCALLTABLE UpcallTable,
                                 LPWSPPROC_TABLE lpProcTable);

int WSPAPI WSCEnumProtocols(LPINT lpiProtocols, LPWSAPROTOCOL_INFOW lpProtocolBuffer,
                            LPDWORD lpdwBufferLength, LPINT lpErrno);
int WSPAPI WSCGetProviderPath(LPGUID lpProviderId, WCHAR* lpszProviderDllPath, LPINT lpProviderDllPathLen,
                              LPINT lpErrno);

BOOL WSPAPI WPUCloseEvent(WSAEVENT hEvent, LPINT lpErrno);
int WSPAPI WPUCloseSocketHandle(SOCKET s, LPINT lpErrno);
WSAEVENT WSPAPI WPUCreateEvent(LPINT lpErrno);
SOCKET WSPAPI WPUCreateSocketHandle(DWORD dwCatalogEntryId, DWORD_PTR dwContext, LPINT lpErrno);
int WSPAPI WPUFDIsSet(SOCKET s, fd_set* fdset);
int WSPAPI WPUGetProviderPath(LPGUID lpProviderId, WCHAR* lpszProviderDllPath, LPINT lpProviderDllPathLen,
                              LPINT lpErrno);
SOCKET WSPAPI WPUModifyIFSHandle(DWORD dwCatalogEntryId, SOCKET ProposedHandle, LPINT lpErrno);
BOOL WSPAPI WPUPostMessage(HWND hWnd, UINT Msg, WPARAM wParam, LPARAM lParam);
int WSPAPI WPUQueryBlockingCallback(DWORD dwCatalogEntryId, LPBLOCKINGCALLBACK* lplpfnCallback,
                                    PDWORD_PTR lpdwContext, LPINT lpErrno);
int WSPAPI WPUQuerySocketHandleContext(SOCKET s, PDWORD_PTR lpContext, LPINT lpErrno);
int WSPAPI WPUQueueApc(LPWSATHREADID lpThreadId, LPWSAUSERAPC lpfnUserApc, DWORD_PTR dwContext,
                       LPINT lpErrno);
BOOL WSPAPI WPUResetEvent(WSAEVENT hEvent, LPINT lpErrno);
BOOL WSPAPI WPUSetEvent(WSAEVENT hEvent, LPINT lpErrno);
int WSPAPI WPUOpenCurrentThread(LPWSATHREADID lpThreadId, LPINT lpErrno);
int WSPAPI WPUCloseThread(LPWSATHREADID lpThreadId, LPINT lpErrno);
int WSPAPI WPUCompleteOverlappedRequest(SOCKET s, LPWSAOVERLAPPED lpOverlapped, DWORD dwError,
                                        DWORD cbTransferred, LPINT lpErrno);
