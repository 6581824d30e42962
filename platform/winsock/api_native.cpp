// The public names of the native target: each forwards to the host's function, which has another name so that
// a Windows program can carry the host beside the real Winsock.
#include <winsock2.h>

#include <mswsock.h>
#include <ws2spi.h>

#include "platform/winsock/host.h"
#include "platform/winsock/upcalls.h"

int WSAAPI WSAGetLastError() {
    return static_cast<int>(GetLastError());
}
void WSAAPI WSASetLastError(int iError) {
    SetLastError(static_cast<DWORD>(iError));
}

int WSAAPI __WSAFDIsSet(SOCKET s, fd_set* set) {
    return winsock_host::HostWSAFDIsSet(s, set);
}

int WSAAPI WSAStartup(WORD wVersionRequested, LPWSADATA lpWSAData) {
    return winsock_host::HostWSAStartup(wVersionRequested, lpWSAData);
}

int WSAAPI WSACleanup() {
    return winsock_host::HostWSACleanup();
}

SOCKET WSAAPI socket(int af, int type, int protocol) {
    return winsock_host::HostSocket(af, type, protocol);
}

SOCKET WSAAPI WSASocketA(int af, int type, int protocol, LPWSAPROTOCOL_INFOA lpProtocolInfo, GROUP g,
                         DWORD dwFlags) {
    return winsock_host::HostWSASocketA(af, type, protocol, lpProtocolInfo, g, dwFlags);
}

SOCKET WSAAPI WSASocketW(int af, int type, int protocol, LPWSAPROTOCOL_INFOW lpProtocolInfo, GROUP g,
                         DWORD dwFlags) {
    return winsock_host::HostWSASocketW(af, type, protocol, lpProtocolInfo, g, dwFlags);
}

int WSAAPI closesocket(SOCKET s) {
    return winsock_host::HostCloseSocket(s);
}

int WSAAPI bind(SOCKET s, const struct sockaddr* name, int namelen) {
    return winsock_host::HostBind(s, name, namelen);
}

int WSAAPI listen(SOCKET s, int backlog) {
    return winsock_host::HostListen(s, backlog);
}

int WSAAPI connect(SOCKET s, const struct sockaddr* name, int namelen) {
    return winsock_host::HostConnect(s, name, namelen);
}

int WSAAPI WSAConnect(SOCKET s, const struct sockaddr* name, int namelen, LPWSABUF lpCallerData,
                      LPWSABUF lpCalleeData, LPQOS lpSQOS, LPQOS lpGQOS) {
    return winsock_host::HostWSAConnect(s, name, namelen, lpCallerData, lpCalleeData, lpSQOS, lpGQOS);
}

SOCKET WSAAPI accept(SOCKET s, struct sockaddr* addr, int* addrlen) {
    return winsock_host::HostAccept(s, addr, addrlen);
}

SOCKET WSAAPI WSAAccept(SOCKET s, struct sockaddr* addr, LPINT addrlen, LPCONDITIONPROC lpfnCondition,
                        DWORD_PTR dwCallbackData) {
    return winsock_host::HostWSAAccept(s, addr, addrlen, lpfnCondition, dwCallbackData);
}

SOCKET WSAAPI WSAJoinLeaf(SOCKET s, const struct sockaddr* name, int namelen, LPWSABUF lpCallerData,
                          LPWSABUF lpCalleeData, LPQOS lpSQOS, LPQOS lpGQOS, DWORD dwFlags) {
    return winsock_host::HostWSAJoinLeaf(s, name, namelen, lpCallerData, lpCalleeData, lpSQOS, lpGQOS,
                                         dwFlags);
}

int WSAAPI shutdown(SOCKET s, int how) {
    return winsock_host::HostShutdown(s, how);
}

int WSAAPI WSASendDisconnect(SOCKET s, LPWSABUF lpOutboundDisconnectData) {
    return winsock_host::HostWSASendDisconnect(s, lpOutboundDisconnectData);
}

int WSAAPI WSARecvDisconnect(SOCKET s, LPWSABUF lpInboundDisconnectData) {
    return winsock_host::HostWSARecvDisconnect(s, lpInboundDisconnectData);
}

int WSAAPI send(SOCKET s, const char* buf, int len, int flags) {
    return winsock_host::HostSend(s, buf, len, flags);
}

int WSAAPI sendto(SOCKET s, const char* buf, int len, int flags, const struct sockaddr* to, int tolen) {
    return winsock_host::HostSendTo(s, buf, len, flags, to, tolen);
}

int WSAAPI recv(SOCKET s, char* buf, int len, int flags) {
    return winsock_host::HostRecv(s, buf, len, flags);
}

int WSAAPI recvfrom(SOCKET s, char* buf, int len, int flags, struct sockaddr* from, int* fromlen) {
    return winsock_host::HostRecvFrom(s, buf, len, flags, from, fromlen);
}

int WSAAPI WSASend(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount, LPDWORD lpNumberOfBytesSent,
                   DWORD dwFlags, LPWSAOVERLAPPED lpOverlapped,
                   LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine) {
    return winsock_host::HostWSASend(s, lpBuffers, dwBufferCount, lpNumberOfBytesSent, dwFlags, lpOverlapped,
                                     lpCompletionRoutine);
}

int WSAAPI WSASendTo(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount, LPDWORD lpNumberOfBytesSent,
                     DWORD dwFlags, const struct sockaddr* lpTo, int iTolen, LPWSAOVERLAPPED lpOverlapped,
                     LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine) {
    return winsock_host::HostWSASendTo(s, lpBuffers, dwBufferCount, lpNumberOfBytesSent, dwFlags, lpTo,
                                       iTolen, lpOverlapped, lpCompletionRoutine);
}

int WSAAPI WSARecv(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount, LPDWORD lpNumberOfBytesRecvd,
                   LPDWORD lpFlags, LPWSAOVERLAPPED lpOverlapped,
                   LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine) {
    return winsock_host::HostWSARecv(s, lpBuffers, dwBufferCount, lpNumberOfBytesRecvd, lpFlags, lpOverlapped,
                                     lpCompletionRoutine);
}

int WSAAPI WSARecvFrom(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount, LPDWORD lpNumberOfBytesRecvd,
                       LPDWORD lpFlags, struct sockaddr* lpFrom, LPINT lpFromlen,
                       LPWSAOVERLAPPED lpOverlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine) {
    return winsock_host::HostWSARecvFrom(s, lpBuffers, dwBufferCount, lpNumberOfBytesRecvd, lpFlags, lpFrom,
                                         lpFromlen, lpOverlapped, lpCompletionRoutine);
}

BOOL WSAAPI WSAGetOverlappedResult(SOCKET s, LPWSAOVERLAPPED lpOverlapped, LPDWORD lpcbTransfer, BOOL fWait,
                                   LPDWORD lpdwFlags) {
    return winsock_host::HostWSAGetOverlappedResult(s, lpOverlapped, lpcbTransfer, fWait, lpdwFlags);
}

int WSAAPI select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, const PTIMEVAL timeout) {
    return winsock_host::HostSelect(nfds, readfds, writefds, exceptfds, timeout);
}

int WSAAPI WSAAsyncSelect(SOCKET s, HWND hWnd, unsigned int wMsg, LONG lEvent) {
    return winsock_host::HostWSAAsyncSelect(s, hWnd, wMsg, lEvent);
}

int WSAAPI WSAEventSelect(SOCKET s, WSAEVENT hEventObject, LONG lNetworkEvents) {
    return winsock_host::HostWSAEventSelect(s, hEventObject, lNetworkEvents);
}

int WSAAPI WSAEnumNetworkEvents(SOCKET s, WSAEVENT hEventObject, LPWSANETWORKEVENTS lpNetworkEvents) {
    return winsock_host::HostWSAEnumNetworkEvents(s, hEventObject, lpNetworkEvents);
}

WSAEVENT WSAAPI WSACreateEvent() {
    return winsock_host::HostWSACreateEvent();
}

BOOL WSAAPI WSACloseEvent(WSAEVENT hEvent) {
    return winsock_host::HostWSACloseEvent(hEvent);
}

BOOL WSAAPI WSASetEvent(WSAEVENT hEvent) {
    return winsock_host::HostWSASetEvent(hEvent);
}

BOOL WSAAPI WSAResetEvent(WSAEVENT hEvent) {
    return winsock_host::HostWSAResetEvent(hEvent);
}

DWORD WSAAPI WSAWaitForMultipleEvents(DWORD cEvents, const WSAEVENT* lphEvents, BOOL fWaitAll,
                                      DWORD dwTimeout, BOOL fAlertable) {
    return winsock_host::HostWSAWaitForMultipleEvents(cEvents, lphEvents, fWaitAll, dwTimeout, fAlertable);
}

int WSAAPI ioctlsocket(SOCKET s, LONG cmd, u_long* argp) {
    return winsock_host::HostIoctlSocket(s, cmd, argp);
}

int WSAAPI WSAIoctl(SOCKET s, DWORD dwIoControlCode, LPVOID lpvInBuffer, DWORD cbInBuffer,
                    LPVOID lpvOutBuffer, DWORD cbOutBuffer, LPDWORD lpcbBytesReturned,
                    LPWSAOVERLAPPED lpOverlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine) {
    return winsock_host::HostWSAIoctl(s, dwIoControlCode, lpvInBuffer, cbInBuffer, lpvOutBuffer, cbOutBuffer,
                                      lpcbBytesReturned, lpOverlapped, lpCompletionRoutine);
}

int WSAAPI getsockopt(SOCKET s, int level, int optname, char* optval, int* optlen) {
    return winsock_host::HostGetSockOpt(s, level, optname, optval, optlen);
}

int WSAAPI setsockopt(SOCKET s, int level, int optname, const char* optval, int optlen) {
    return winsock_host::HostSetSockOpt(s, level, optname, optval, optlen);
}

int WSAAPI getpeername(SOCKET s, struct sockaddr* name, int* namelen) {
    return winsock_host::HostGetPeerName(s, name, namelen);
}

int WSAAPI getsockname(SOCKET s, struct sockaddr* name, int* namelen) {
    return winsock_host::HostGetSockName(s, name, namelen);
}

BOOL WSAAPI WSAGetQOSByName(SOCKET s, LPWSABUF lpQOSName, LPQOS lpQOS) {
    return winsock_host::HostWSAGetQOSByName(s, lpQOSName, lpQOS);
}

int WSAAPI WSAEnumProtocolsA(LPINT lpiProtocols, LPWSAPROTOCOL_INFOA lpProtocolBuffer,
                             LPDWORD lpdwBufferLength) {
    return winsock_host::HostWSAEnumProtocolsA(lpiProtocols, lpProtocolBuffer, lpdwBufferLength);
}

int WSAAPI WSAEnumProtocolsW(LPINT lpiProtocols, LPWSAPROTOCOL_INFOW lpProtocolBuffer,
                             LPDWORD lpdwBufferLength) {
    return winsock_host::HostWSAEnumProtocolsW(lpiProtocols, lpProtocolBuffer, lpdwBufferLength);
}

int WSAAPI WSADuplicateSocketA(SOCKET s, DWORD dwProcessId, LPWSAPROTOCOL_INFOA lpProtocolInfo) {
    return winsock_host::HostWSADuplicateSocketA(s, dwProcessId, lpProtocolInfo);
}

int WSAAPI WSADuplicateSocketW(SOCKET s, DWORD dwProcessId, LPWSAPROTOCOL_INFOW lpProtocolInfo) {
    return winsock_host::HostWSADuplicateSocketW(s, dwProcessId, lpProtocolInfo);
}

INT WSAAPI WSAAddressToStringA(LPSOCKADDR lpsaAddress, DWORD dwAddressLength,
                               LPWSAPROTOCOL_INFOA lpProtocolInfo, LPSTR lpszAddressString,
                               LPDWORD lpdwAddressStringLength) {
    return winsock_host::HostWSAAddressToStringA(lpsaAddress, dwAddressLength, lpProtocolInfo,
                                                 lpszAddressString, lpdwAddressStringLength);
}

INT WSAAPI WSAAddressToStringW(LPSOCKADDR lpsaAddress, DWORD dwAddressLength,
                               LPWSAPROTOCOL_INFOW lpProtocolInfo, LPWSTR lpszAddressString,
                               LPDWORD lpdwAddressStringLength) {
    return winsock_host::HostWSAAddressToStringW(lpsaAddress, dwAddressLength, lpProtocolInfo,
                                                 lpszAddressString, lpdwAddressStringLength);
}

INT WSAAPI WSAStringToAddressA(LPSTR AddressString, INT AddressFamily, LPWSAPROTOCOL_INFOA lpProtocolInfo,
                               LPSOCKADDR lpAddress, LPINT lpAddressLength) {
    return winsock_host::HostWSAStringToAddressA(AddressString, AddressFamily, lpProtocolInfo, lpAddress,
                                                 lpAddressLength);
}

INT WSAAPI WSAStringToAddressW(LPWSTR AddressString, INT AddressFamily, LPWSAPROTOCOL_INFOW lpProtocolInfo,
                               LPSOCKADDR lpAddress, LPINT lpAddressLength) {
    return winsock_host::HostWSAStringToAddressW(AddressString, AddressFamily, lpProtocolInfo, lpAddress,
                                                 lpAddressLength);
}

BOOL WSAAPI AcceptEx(SOCKET sListenSocket, SOCKET sAcceptSocket, PVOID lpOutputBuffer,
                     DWORD dwReceiveDataLength, DWORD dwLocalAddressLength, DWORD dwRemoteAddressLength,
                     LPDWORD lpdwBytesReceived, LPOVERLAPPED lpOverlapped) {
    return winsock_host::HostAcceptEx(sListenSocket, sAcceptSocket, lpOutputBuffer, dwReceiveDataLength,
                                      dwLocalAddressLength, dwRemoteAddressLength, lpdwBytesReceived,
                                      lpOverlapped);
}

VOID WSAAPI GetAcceptExSockaddrs(PVOID lpOutputBuffer, DWORD dwReceiveDataLength, DWORD dwLocalAddressLength,
                                 DWORD dwRemoteAddressLength, struct sockaddr** LocalSockaddr,
                                 LPINT LocalSockaddrLength, struct sockaddr** RemoteSockaddr,
                                 LPINT RemoteSockaddrLength) {
    winsock_host::HostGetAcceptExSockaddrs(lpOutputBuffer, dwReceiveDataLength, dwLocalAddressLength,
                                           dwRemoteAddressLength, LocalSockaddr, LocalSockaddrLength,
                                           RemoteSockaddr, RemoteSockaddrLength);
}

BOOL WSAAPI TransmitFile(SOCKET hSocket, HANDLE hFile, DWORD nNumberOfBytesToWrite,
                         DWORD nNumberOfBytesPerSend, LPOVERLAPPED lpOverlapped,
                         LPTRANSMIT_FILE_BUFFERS lpTransmitBuffers, DWORD dwReserved) {
    return winsock_host::HostTransmitFile(hSocket, hFile, nNumberOfBytesToWrite, nNumberOfBytesPerSend,
                                          lpOverlapped, lpTransmitBuffers, dwReserved);
}

int WSPAPI WSCEnumProtocols(LPINT lpiProtocols, LPWSAPROTOCOL_INFOW lpProtocolBuffer,
                            LPDWORD lpdwBufferLength, LPINT lpErrno) {
    return winsock_host::HostWSCEnumProtocols(lpiProtocols, lpProtocolBuffer, lpdwBufferLength, lpErrno);
}

int WSPAPI WSCGetProviderPath(LPGUID lpProviderId, WCHAR* lpszProviderDllPath, LPINT lpProviderDllPathLen,
                              LPINT lpErrno) {
    return winsock_host::HostWSCGetProviderPath(lpProviderId, lpszProviderDllPath, lpProviderDllPathLen,
                                                lpErrno);
}

BOOL WSPAPI WPUCloseEvent(WSAEVENT hEvent, LPINT lpErrno) {
    return winsock_host::HostWPUCloseEvent(hEvent, lpErrno);
}

int WSPAPI WPUCloseSocketHandle(SOCKET s, LPINT lpErrno) {
    return winsock_host::HostWPUCloseSocketHandle(s, lpErrno);
}

WSAEVENT WSPAPI WPUCreateEvent(LPINT lpErrno) {
    return winsock_host::HostWPUCreateEvent(lpErrno);
}

SOCKET WSPAPI WPUCreateSocketHandle(DWORD dwCatalogEntryId, DWORD_PTR dwContext, LPINT lpErrno) {
    return winsock_host::HostWPUCreateSocketHandle(dwCatalogEntryId, dwContext, lpErrno);
}

int WSPAPI WPUFDIsSet(SOCKET s, fd_set* fdset) {
    return winsock_host::HostWPUFDIsSet(s, fdset);
}

int WSPAPI WPUGetProviderPath(LPGUID lpProviderId, WCHAR* lpszProviderDllPath, LPINT lpProviderDllPathLen,
                              LPINT lpErrno) {
    return winsock_host::HostWPUGetProviderPath(lpProviderId, lpszProviderDllPath, lpProviderDllPathLen,
                                                lpErrno);
}

SOCKET WSPAPI WPUModifyIFSHandle(DWORD dwCatalogEntryId, SOCKET ProposedHandle, LPINT lpErrno) {
    return winsock_host::HostWPUModifyIFSHandle(dwCatalogEntryId, ProposedHandle, lpErrno);
}

BOOL WSPAPI WPUPostMessage(HWND hWnd, UINT Msg, WPARAM wParam, LPARAM lParam) {
    return winsock_host::HostWPUPostMessage(hWnd, Msg, wParam, lParam);
}

int WSPAPI WPUQueryBlockingCallback(DWORD dwCatalogEntryId, LPBLOCKINGCALLBACK* lplpfnCallback,
                                    PDWORD_PTR lpdwContext, LPINT lpErrno) {
    return winsock_host::HostWPUQueryBlockingCallback(dwCatalogEntryId, lplpfnCallback, lpdwContext, lpErrno);
}

int WSPAPI WPUQuerySocketHandleContext(SOCKET s, PDWORD_PTR lpContext, LPINT lpErrno) {
    return winsock_host::HostWPUQuerySocketHandleContext(s, lpContext, lpErrno);
}

int WSPAPI WPUQueueApc(LPWSATHREADID lpThreadId, LPWSAUSERAPC lpfnUserApc, DWORD_PTR dwContext,
                       LPINT lpErrno) {
    return winsock_host::HostWPUQueueApc(lpThreadId, lpfnUserApc, dwContext, lpErrno);
}

BOOL WSPAPI WPUResetEvent(WSAEVENT hEvent, LPINT lpErrno) {
    return winsock_host::HostWPUResetEvent(hEvent, lpErrno);
}

BOOL WSPAPI WPUSetEvent(WSAEVENT hEvent, LPINT lpErrno) {
    return winsock_host::HostWPUSetEvent(hEvent, lpErrno);
}

int WSPAPI WPUOpenCurrentThread(LPWSATHREADID lpThreadId, LPINT lpErrno) {
    return winsock_host::HostWPUOpenCurrentThread(lpThreadId, lpErrno);
}

int WSPAPI WPUCloseThread(LPWSATHREADID lpThreadId, LPINT lpErrno) {
    return winsock_host::HostWPUCloseThread(lpThreadId, lpErrno);
}

int WSPAPI WPUCompleteOverlappedRequest(SOCKET s, LPWSAOVERLAPPED lpOverlapped, DWORD dwError,
                                        DWORD cbTransferred, LPINT lpErrno) {
    return winsock_host::HostWPUCompleteOverlappedRequest(s, lpOverlapped, dwError, cbTransferred, lpErrno);
}
