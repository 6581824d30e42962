// The sockets interface of the stand-in: Windows' own names, values and layouts, as far as this project uses
// them.
//
// Every function has C++ linkage, so that none of them is libc's function of the same name. The types and
// macros that libc's usual headers bring along (fd_set, FD_SET, u_long) are replaced after those headers were
// read. A translation unit therefore includes either this header or the POSIX socket headers, never both.
// GetLastError and WSAGetLastError read the same per-thread slot.
#pragma once

#include <sys/select.h>
#include <sys/time.h>
#include <sys/types.h>
#include <unistd.h>
#include <windows.h>

#include <cstddef>

#define WSAAPI WINAPI

// ---- Basic types

typedef UINT_PTR SOCKET;
typedef unsigned int GROUP;
typedef ULONG WinsockULong;
#define u_long WinsockULong

#define INVALID_SOCKET (static_cast<SOCKET>(~static_cast<SOCKET>(0)))
#define SOCKET_ERROR (-1)
#define FROM_PROTOCOL_INFO (-1)

typedef struct timeval TIMEVAL, *PTIMEVAL, *LPTIMEVAL;

struct in_addr {
    union {
        struct {
            UCHAR s_b1, s_b2, s_b3, s_b4;
        } S_un_b;
        struct {
            USHORT s_w1, s_w2;
        } S_un_w;
        ULONG S_addr;
    } S_un;
};
typedef struct in_addr IN_ADDR, *PIN_ADDR, *LPIN_ADDR;
#define s_addr S_un.S_addr
#define s_net S_un.S_un_b.s_b1
#define s_host S_un.S_un_b.s_b2
#define s_lh S_un.S_un_b.s_b3
#define s_impno S_un.S_un_b.s_b4
#define s_imp S_un.S_un_w.s_w2

typedef USHORT ADDRESS_FAMILY;

struct sockaddr {
    ADDRESS_FAMILY sa_family;
    CHAR sa_data[14];
};
typedef struct sockaddr SOCKADDR, *PSOCKADDR, *LPSOCKADDR;

struct sockaddr_in {
    short sin_family;
    USHORT sin_port;
    struct in_addr sin_addr;
    CHAR sin_zero[8];
};
typedef struct sockaddr_in SOCKADDR_IN, *PSOCKADDR_IN, *LPSOCKADDR_IN;

struct sockaddr_storage {
    short ss_family;
    char ss_pad1[6];
    long long ss_align;
    char ss_pad2[112];
};
typedef struct sockaddr_storage SOCKADDR_STORAGE, *PSOCKADDR_STORAGE, *LPSOCKADDR_STORAGE;

typedef struct SOCKET_ADDRESS {
    LPSOCKADDR lpSockaddr;
    INT iSockaddrLength;
} * PSOCKET_ADDRESS, *LPSOCKET_ADDRESS;

struct linger {
    USHORT l_onoff;
    USHORT l_linger;
};
typedef struct linger LINGER, *PLINGER, *LPLINGER;

static_assert(sizeof(sockaddr) == 16 && sizeof(sockaddr_in) == 16 && sizeof(sockaddr_storage) == 128);

// ---- Sets of sockets

struct WinsockFdSet {
    unsigned int fd_count;
    SOCKET fd_array[64];
};
#undef fd_set
#undef FD_SETSIZE
#undef FD_SET
#undef FD_CLR
#undef FD_ZERO
#undef FD_ISSET
#define fd_set WinsockFdSet
#define FD_SETSIZE 64
typedef WinsockFdSet FD_SET, *PFD_SET, *LPFD_SET;

int WSAAPI __WSAFDIsSet(SOCKET s, fd_set* set);

/// Adds `s` unless it is there already or the set is full.
inline void WinsockFdAdd(SOCKET s, WinsockFdSet* set) {
    for (unsigned int i = 0; i < set->fd_count; ++i) {
        if (set->fd_array[i] == s) return;
    }
    if (set->fd_count < FD_SETSIZE) set->fd_array[set->fd_count++] = s;
}

/// Removes `s` and keeps the order of the others.
inline void WinsockFdRemove(SOCKET s, WinsockFdSet* set) {
    for (unsigned int i = 0; i < set->fd_count; ++i) {
        if (set->fd_array[i] != s) continue;
        for (; i + 1 < set->fd_count; ++i)
            set->fd_array[i] = set->fd_array[i + 1];
        --set->fd_count;
        return;
    }
}

#define FD_SET(fd, set) WinsockFdAdd(static_cast<SOCKET>(fd), (set))
#define FD_CLR(fd, set) WinsockFdRemove(static_cast<SOCKET>(fd), (set))
#define FD_ZERO(set) ((set)->fd_count = 0)
#define FD_ISSET(fd, set) __WSAFDIsSet(static_cast<SOCKET>(fd), (set))

// ---- Control codes

#define IOCPARM_MASK 0x7f
#define IOC_VOID 0x20000000u
#define IOC_OUT 0x40000000u
#define IOC_IN 0x80000000u
#define IOC_INOUT (IOC_IN | IOC_OUT)
#undef _IO
#undef _IOR
#undef _IOW
#define _IO(x, y) (IOC_VOID | ((x) << 8) | (y))
#define _IOR(x, y, t) (IOC_OUT | ((static_cast<ULONG>(sizeof(t)) & IOCPARM_MASK) << 16) | ((x) << 8) | (y))
#define _IOW(x, y, t) (IOC_IN | ((static_cast<ULONG>(sizeof(t)) & IOCPARM_MASK) << 16) | ((x) << 8) | (y))

#undef FIONREAD
#undef FIONBIO
#undef FIOASYNC
#undef SIOCATMARK
#define FIONREAD _IOR('f', 127, u_long)
#define FIONBIO _IOW('f', 126, u_long)
#define FIOASYNC _IOW('f', 125, u_long)
#define SIOCATMARK _IOR('s', 7, u_long)

#define IOC_UNIX 0x00000000
#define IOC_WS2 0x08000000
#define IOC_PROTOCOL 0x10000000
#define IOC_VENDOR 0x18000000
#define _WSAIO(x, y) (IOC_VOID | (x) | (y))
#define _WSAIOR(x, y) (IOC_OUT | (x) | (y))
#define _WSAIOW(x, y) (IOC_IN | (x) | (y))
#define _WSAIORW(x, y) (IOC_INOUT | (x) | (y))

#define SIO_FLUSH _WSAIO(IOC_WS2, 4)
#define SIO_GET_EXTENSION_FUNCTION_POINTER _WSAIORW(IOC_WS2, 6)
#define SIO_QUERY_TARGET_PNP_HANDLE _WSAIOR(IOC_WS2, 24)

// ---- Protocols, addresses, socket types, options

#define IPPROTO_IP 0
#define IPPROTO_ICMP 1
#define IPPROTO_TCP 6
#define IPPROTO_UDP 17
#define IPPROTO_IPV6 41
#define IPPROTO_RAW 255

#define INADDR_ANY static_cast<u_long>(0x00000000)
#define INADDR_LOOPBACK 0x7f000001
#define INADDR_BROADCAST static_cast<u_long>(0xffffffff)
#define INADDR_NONE 0xffffffff

#define SOCK_STREAM 1
#define SOCK_DGRAM 2
#define SOCK_RAW 3
#define SOCK_RDM 4
#define SOCK_SEQPACKET 5

#define SOL_SOCKET 0xffff
#define SO_DEBUG 0x0001
#define SO_ACCEPTCONN 0x0002
#define SO_REUSEADDR 0x0004
#define SO_KEEPALIVE 0x0008
#define SO_DONTROUTE 0x0010
#define SO_BROADCAST 0x0020
#define SO_USELOOPBACK 0x0040
#define SO_LINGER 0x0080
#define SO_OOBINLINE 0x0100
#define SO_DONTLINGER static_cast<int>(~SO_LINGER)
#define SO_EXCLUSIVEADDRUSE static_cast<int>(~SO_REUSEADDR)
#define SO_SNDBUF 0x1001
#define SO_RCVBUF 0x1002
#define SO_SNDLOWAT 0x1003
#define SO_RCVLOWAT 0x1004
#define SO_SNDTIMEO 0x1005
#define SO_RCVTIMEO 0x1006
#define SO_ERROR 0x1007
#define SO_TYPE 0x1008
#define SO_GROUP_ID 0x2001
#define SO_GROUP_PRIORITY 0x2002
#define SO_MAX_MSG_SIZE 0x2003
#define SO_PROTOCOL_INFOA 0x2004
#define SO_PROTOCOL_INFOW 0x2005
#ifdef UNICODE
#define SO_PROTOCOL_INFO SO_PROTOCOL_INFOW
#else
#define SO_PROTOCOL_INFO SO_PROTOCOL_INFOA
#endif
#define SO_CONDITIONAL_ACCEPT 0x3002

#define TCP_NODELAY 0x0001

#define AF_UNSPEC 0
#define AF_UNIX 1
#define AF_INET 2
#define AF_IPX 6
#define AF_APPLETALK 16
#define AF_INET6 23

#define SOMAXCONN 0x7fffffff

#define MSG_OOB 0x1
#define MSG_PEEK 0x2
#define MSG_DONTROUTE 0x4
#define MSG_WAITALL 0x8
#define MSG_PARTIAL 0x8000
#define MSG_MAXIOVLEN 16

#define SD_RECEIVE 0x00
#define SD_SEND 0x01
#define SD_BOTH 0x02

#define CF_ACCEPT 0x0000
#define CF_REJECT 0x0001
#define CF_DEFER 0x0002

#define JL_BOTH 0x04

#define WSA_FLAG_OVERLAPPED 0x01
#define WSA_FLAG_MULTIPOINT_C_ROOT 0x02

// ---- Network events

#define FD_READ_BIT 0
#define FD_READ (1 << FD_READ_BIT)
#define FD_WRITE_BIT 1
#define FD_WRITE (1 << FD_WRITE_BIT)
#define FD_OOB_BIT 2
#define FD_OOB (1 << FD_OOB_BIT)
#define FD_ACCEPT_BIT 3
#define FD_ACCEPT (1 << FD_ACCEPT_BIT)
#define FD_CONNECT_BIT 4
#define FD_CONNECT (1 << FD_CONNECT_BIT)
#define FD_CLOSE_BIT 5
#define FD_CLOSE (1 << FD_CLOSE_BIT)
#define FD_MAX_EVENTS 10
#define FD_ALL_EVENTS ((1 << FD_MAX_EVENTS) - 1)

#define WSAGETSELECTEVENT(lParam) LOWORD(lParam)
#define WSAGETSELECTERROR(lParam) HIWORD(lParam)
#define WSAMAKESELECTREPLY(event, error) MAKELONG(event, error)

typedef struct WSANETWORKEVENTS {
    LONG lNetworkEvents;
    int iErrorCode[FD_MAX_EVENTS];
} * LPWSANETWORKEVENTS;

// ---- Errors

#define WSABASEERR 10000
#define WSAEINTR 10004
#define WSAEACCES 10013
#define WSAEFAULT 10014
#define WSAEINVAL 10022
#define WSAEMFILE 10024
#define WSAEWOULDBLOCK 10035
#define WSAEINPROGRESS 10036
#define WSAEALREADY 10037
#define WSAENOTSOCK 10038
#define WSAEDESTADDRREQ 10039
#define WSAEMSGSIZE 10040
#define WSAEPROTOTYPE 10041
#define WSAENOPROTOOPT 10042
#define WSAEPROTONOSUPPORT 10043
#define WSAESOCKTNOSUPPORT 10044
#define WSAEOPNOTSUPP 10045
#define WSAEPFNOSUPPORT 10046
#define WSAEAFNOSUPPORT 10047
#define WSAEADDRINUSE 10048
#define WSAEADDRNOTAVAIL 10049
#define WSAENETDOWN 10050
#define WSAENETUNREACH 10051
#define WSAENETRESET 10052
#define WSAECONNABORTED 10053
#define WSAECONNRESET 10054
#define WSAENOBUFS 10055
#define WSAEISCONN 10056
#define WSAENOTCONN 10057
#define WSAESHUTDOWN 10058
#define WSAETOOMANYREFS 10059
#define WSAETIMEDOUT 10060
#define WSAECONNREFUSED 10061
#define WSAEHOSTDOWN 10064
#define WSAEHOSTUNREACH 10065
#define WSASYSNOTREADY 10091
#define WSAVERNOTSUPPORTED 10092
#define WSANOTINITIALISED 10093
#define WSAEDISCON 10101
#define WSAEINVALIDPROCTABLE 10104
#define WSAEPROVIDERFAILEDINIT 10106
#define WSASYSCALLFAILURE 10107
#define WSATRY_AGAIN 11002

// ---- Overlapped requests and events

#define WSAEVENT HANDLE
#define LPWSAEVENT LPHANDLE
#define WSAOVERLAPPED OVERLAPPED
typedef OVERLAPPED* LPWSAOVERLAPPED;

#define WSA_IO_PENDING (ERROR_IO_PENDING)
#define WSA_IO_INCOMPLETE (ERROR_IO_INCOMPLETE)
#define WSA_INVALID_HANDLE (ERROR_INVALID_HANDLE)
#define WSA_INVALID_PARAMETER (ERROR_INVALID_PARAMETER)
#define WSA_NOT_ENOUGH_MEMORY (ERROR_NOT_ENOUGH_MEMORY)
#define WSA_OPERATION_ABORTED (ERROR_OPERATION_ABORTED)

#define WSA_INVALID_EVENT (static_cast<WSAEVENT>(nullptr))
#define WSA_MAXIMUM_WAIT_EVENTS (MAXIMUM_WAIT_OBJECTS)
#define WSA_WAIT_FAILED (WAIT_FAILED)
#define WSA_WAIT_EVENT_0 (WAIT_OBJECT_0)
#define WSA_WAIT_IO_COMPLETION (WAIT_IO_COMPLETION)
#define WSA_WAIT_TIMEOUT (WAIT_TIMEOUT)
#define WSA_INFINITE (INFINITE)

typedef struct WSABUF {
    ULONG len;
    CHAR* buf;
} * LPWSABUF;

typedef struct WSAMSG {
    LPSOCKADDR name;
    INT namelen;
    LPWSABUF lpBuffers;
    DWORD dwBufferCount;
    WSABUF Control;
    DWORD dwFlags;
} * PWSAMSG, *LPWSAMSG;

typedef ULONG SERVICETYPE;
typedef struct FLOWSPEC {
    ULONG TokenRate;
    ULONG TokenBucketSize;
    ULONG PeakBandwidth;
    ULONG Latency;
    ULONG DelayVariation;
    SERVICETYPE ServiceType;
    ULONG MaxSduSize;
    ULONG MinimumPolicedSize;
} * PFLOWSPEC, *LPFLOWSPEC;

typedef struct QOS {
    FLOWSPEC SendingFlowspec;
    FLOWSPEC ReceivingFlowspec;
    WSABUF ProviderSpecific;
} * LPQOS;

typedef int(CALLBACK* LPCONDITIONPROC)(LPWSABUF lpCallerId, LPWSABUF lpCallerData, LPQOS lpSQOS, LPQOS lpGQOS,
                                       LPWSABUF lpCalleeId, LPWSABUF lpCalleeData, GROUP* g,
                                       DWORD_PTR dwCallbackData);
typedef void(CALLBACK* LPWSAOVERLAPPED_COMPLETION_ROUTINE)(DWORD dwError, DWORD cbTransferred,
                                                           LPWSAOVERLAPPED lpOverlapped, DWORD dwFlags);

// ---- Catalog entries

#define MAX_PROTOCOL_CHAIN 7
#define BASE_PROTOCOL 1
#define LAYERED_PROTOCOL 0
#define WSAPROTOCOL_LEN 255

typedef struct WSAPROTOCOLCHAIN {
    int ChainLen;
    DWORD ChainEntries[MAX_PROTOCOL_CHAIN];
} * LPWSAPROTOCOLCHAIN;

typedef struct WSAPROTOCOL_INFOA {
    DWORD dwServiceFlags1;
    DWORD dwServiceFlags2;
    DWORD dwServiceFlags3;
    DWORD dwServiceFlags4;
    DWORD dwProviderFlags;
    GUID ProviderId;
    DWORD dwCatalogEntryId;
    WSAPROTOCOLCHAIN ProtocolChain;
    int iVersion;
    int iAddressFamily;
    int iMaxSockAddr;
    int iMinSockAddr;
    int iSocketType;
    int iProtocol;
    int iProtocolMaxOffset;
    int iNetworkByteOrder;
    int iSecurityScheme;
    DWORD dwMessageSize;
    DWORD dwProviderReserved;
    CHAR szProtocol[WSAPROTOCOL_LEN + 1];
} * LPWSAPROTOCOL_INFOA;

typedef struct WSAPROTOCOL_INFOW {
    DWORD dwServiceFlags1;
    DWORD dwServiceFlags2;
    DWORD dwServiceFlags3;
    DWORD dwServiceFlags4;
    DWORD dwProviderFlags;
    GUID ProviderId;
    DWORD dwCatalogEntryId;
    WSAPROTOCOLCHAIN ProtocolChain;
    int iVersion;
    int iAddressFamily;
    int iMaxSockAddr;
    int iMinSockAddr;
    int iSocketType;
    int iProtocol;
    int iProtocolMaxOffset;
    int iNetworkByteOrder;
    int iSecurityScheme;
    DWORD dwMessageSize;
    DWORD dwProviderReserved;
    WCHAR szProtocol[WSAPROTOCOL_LEN + 1];
} * LPWSAPROTOCOL_INFOW;

static_assert(sizeof(WSAPROTOCOL_INFOW) == 628 && sizeof(WSAPROTOCOL_INFOA) == 372);

#ifdef UNICODE
typedef WSAPROTOCOL_INFOW WSAPROTOCOL_INFO;
typedef LPWSAPROTOCOL_INFOW LPWSAPROTOCOL_INFO;
#define WSASocket WSASocketW
#define WSAEnumProtocols WSAEnumProtocolsW
#define WSADuplicateSocket WSADuplicateSocketW
#define WSAAddressToString WSAAddressToStringW
#define WSAStringToAddress WSAStringToAddressW
#else
typedef WSAPROTOCOL_INFOA WSAPROTOCOL_INFO;
typedef LPWSAPROTOCOL_INFOA LPWSAPROTOCOL_INFO;
#define WSASocket WSASocketA
#define WSAEnumProtocols WSAEnumProtocolsA
#define WSADuplicateSocket WSADuplicateSocketA
#define WSAAddressToString WSAAddressToStringA
#define WSAStringToAddress WSAStringToAddressA
#endif

#define PFL_HIDDEN 0x00000004
#define PFL_MATCHES_PROTOCOL_ZERO 0x00000008

#define XP1_CONNECTIONLESS 0x00000001
#define XP1_GUARANTEED_DELIVERY 0x00000002
#define XP1_GUARANTEED_ORDER 0x00000004
#define XP1_MESSAGE_ORIENTED 0x00000008
#define XP1_GRACEFUL_CLOSE 0x00000020
#define XP1_EXPEDITED_DATA 0x00000040
#define XP1_CONNECT_DATA 0x00000080
#define XP1_SUPPORT_BROADCAST 0x00000200
#define XP1_SUPPORT_MULTIPOINT 0x00000400
#define XP1_QOS_SUPPORTED 0x00002000
#define XP1_IFS_HANDLES 0x00020000

#define BIGENDIAN 0x0000
#define SECURITY_PROTOCOL_NONE 0x0000

// ---- Start-up data

#define WSADESCRIPTION_LEN 256
#define WSASYS_STATUS_LEN 128

typedef struct WSADATA {
    WORD wVersion;
    WORD wHighVersion;
    unsigned short iMaxSockets;
    unsigned short iMaxUdpDg;
    char* lpVendorInfo;
    char szDescription[WSADESCRIPTION_LEN + 1];
    char szSystemStatus[WSASYS_STATUS_LEN + 1];
} * LPWSADATA;

// ---- Functions

int WSAAPI WSAStartup(WORD wVersionRequested, LPWSADATA lpWSAData);
int WSAAPI WSACleanup();
int WSAAPI WSAGetLastError();
void WSAAPI WSASetLastError(int iError);

SOCKET WSAAPI socket(int af, int type, int protocol);
SOCKET WSAAPI WSASocketA(int af, int type, int protocol, LPWSAPROTOCOL_INFOA lpProtocolInfo, GROUP g,
                         DWORD dwFlags);
SOCKET WSAAPI WSASocketW(int af, int type, int protocol, LPWSAPROTOCOL_INFOW lpProtocolInfo, GROUP g,
                         DWORD dwFlags);
int WSAAPI closesocket(SOCKET s);
int WSAAPI bind(SOCKET s, const struct sockaddr* name, int namelen);
int WSAAPI listen(SOCKET s, int backlog);
int WSAAPI connect(SOCKET s, const struct sockaddr* name, int namelen);
int WSAAPI WSAConnect(SOCKET s, const struct sockaddr* name, int namelen, LPWSABUF lpCallerData,
                      LPWSABUF lpCalleeData, LPQOS lpSQOS, LPQOS lpGQOS);
SOCKET WSAAPI accept(SOCKET s, struct sockaddr* addr, int* addrlen);
SOCKET WSAAPI WSAAccept(SOCKET s, struct sockaddr* addr, LPINT addrlen, LPCONDITIONPROC lpfnCondition,
                        DWORD_PTR dwCallbackData);
SOCKET WSAAPI WSAJoinLeaf(SOCKET s, const struct sockaddr* name, int namelen, LPWSABUF lpCallerData,
                          LPWSABUF lpCalleeData, LPQOS lpSQOS, LPQOS lpGQOS, DWORD dwFlags);
int WSAAPI shutdown(SOCKET s, int how);
int WSAAPI WSASendDisconnect(SOCKET s, LPWSABUF lpOutboundDisconnectData);
int WSAAPI WSARecvDisconnect(SOCKET s, LPWSABUF lpInboundDisconnectData);

int WSAAPI send(SOCKET s, const char* buf, int len, int flags);
int WSAAPI sendto(SOCKET s, const char* buf, int len, int flags, const struct sockaddr* to, int tolen);
int WSAAPI recv(SOCKET s, char* buf, int len, int flags);
int WSAAPI recvfrom(SOCKET s, char* buf, int len, int flags, struct sockaddr* from, int* fromlen);
int WSAAPI WSASend(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount, LPDWORD lpNumberOfBytesSent,
                   DWORD dwFlags, LPWSAOVERLAPPED lpOverlapped,
                   LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine);
int WSAAPI WSASendTo(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount, LPDWORD lpNumberOfBytesSent,
                     DWORD dwFlags, const struct sockaddr* lpTo, int iTolen, LPWSAOVERLAPPED lpOverlapped,
                     LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine);
int WSAAPI WSARecv(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount, LPDWORD lpNumberOfBytesRecvd,
                   LPDWORD lpFlags, LPWSAOVERLAPPED lpOverlapped,
                   LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine);
int WSAAPI WSARecvFrom(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount, LPDWORD lpNumberOfBytesRecvd,
                       LPDWORD lpFlags, struct sockaddr* lpFrom, LPINT lpFromlen,
                       LPWSAOVERLAPPED lpOverlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine);
BOOL WSAAPI WSAGetOverlappedResult(SOCKET s, LPWSAOVERLAPPED lpOverlapped, LPDWORD lpcbTransfer, BOOL fWait,
                                   LPDWORD lpdwFlags);

int WSAAPI select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, const PTIMEVAL timeout);
/// Without any set the call fails, but libc's function of the same name would fit null pointers as well.
inline int select(int nfds, std::nullptr_t, std::nullptr_t, std::nullptr_t, const PTIMEVAL timeout) {
    fd_set* const none = nullptr;
    return select(nfds, none, none, none, timeout);
}
int WSAAPI WSAAsyncSelect(SOCKET s, HWND hWnd, unsigned int wMsg, LONG lEvent);
int WSAAPI WSAEventSelect(SOCKET s, WSAEVENT hEventObject, LONG lNetworkEvents);
int WSAAPI WSAEnumNetworkEvents(SOCKET s, WSAEVENT hEventObject, LPWSANETWORKEVENTS lpNetworkEvents);
WSAEVENT WSAAPI WSACreateEvent();
BOOL WSAAPI WSACloseEvent(WSAEVENT hEvent);
BOOL WSAAPI WSASetEvent(WSAEVENT hEvent);
BOOL WSAAPI WSAResetEvent(WSAEVENT hEvent);
DWORD WSAAPI WSAWaitForMultipleEvents(DWORD cEvents, const WSAEVENT* lphEvents, BOOL fWaitAll,
                                      DWORD dwTimeout, BOOL fAlertable);

int WSAAPI ioctlsocket(SOCKET s, LONG cmd, u_long* argp);
int WSAAPI WSAIoctl(SOCKET s, DWORD dwIoControlCode, LPVOID lpvInBuffer, DWORD cbInBuffer,
                    LPVOID lpvOutBuffer, DWORD cbOutBuffer, LPDWORD lpcbBytesReturned,
                    LPWSAOVERLAPPED lpOverlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine);
int WSAAPI getsockopt(SOCKET s, int level, int optname, char* optval, int* optlen);
int WSAAPI setsockopt(SOCKET s, int level, int optname, const char* optval, int optlen);
int WSAAPI getpeername(SOCKET s, struct sockaddr* name, int* namelen);
int WSAAPI getsockname(SOCKET s, struct sockaddr* name, int* namelen);
BOOL WSAAPI WSAGetQOSByName(SOCKET s, LPWSABUF lpQOSName, LPQOS lpQOS);

int WSAAPI WSAEnumProtocolsA(LPINT lpiProtocols, LPWSAPROTOCOL_INFOA lpProtocolBuffer,
                             LPDWORD lpdwBufferLength);
int WSAAPI WSAEnumProtocolsW(LPINT lpiProtocols, LPWSAPROTOCOL_INFOW lpProtocolBuffer,
                             LPDWORD lpdwBufferLength);
int WSAAPI WSADuplicateSocketA(SOCKET s, DWORD dwProcessId, LPWSAPROTOCOL_INFOA lpProtocolInfo);
int WSAAPI WSADuplicateSocketW(SOCKET s, DWORD dwProcessId, LPWSAPROTOCOL_INFOW lpProtocolInfo);
INT WSAAPI WSAAddressToStringA(LPSOCKADDR lpsaAddress, DWORD dwAddressLength,
                               LPWSAPROTOCOL_INFOA lpProtocolInfo, LPSTR lpszAddressString,
                               LPDWORD lpdwAddressStringLength);
INT WSAAPI WSAAddressToStringW(LPSOCKADDR lpsaAddress, DWORD dwAddressLength,
                               LPWSAPROTOCOL_INFOW lpProtocolInfo, LPWSTR lpszAddressString,
                               LPDWORD lpdwAddressStringLength);
INT WSAAPI WSAStringToAddressA(LPSTR AddressString, INT AddressFamily, LPWSAPROTOCOL_INFOA lpProtocolInfo,
                               LPSOCKADDR lpAddress, LPINT lpAddressLength);
INT WSAAPI WSAStringToAddressW(LPWSTR AddressString, INT AddressFamily, LPWSAPROTOCOL_INFOW lpProtocolInfo,
                               LPSOCKADDR lpAddress, LPINT lpAddressLength);

#undef htonl
#undef htons
#undef ntohl
#undef ntohs
u_long WSAAPI htonl(u_long hostlong);
u_short WSAAPI htons(u_short hostshort);
u_long WSAAPI ntohl(u_long netlong);
u_short WSAAPI ntohs(u_short netshort);
ULONG WSAAPI inet_addr(const char* cp);
/// The text lies in a buffer of the calling thread and lives until its next call.
char* WSAAPI inet_ntoa(struct in_addr in);
