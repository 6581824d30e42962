// Addresses of both families and their text, as on Windows.
#pragma once

#include <winsock2.h>

struct in6_addr {
    union {
        UCHAR Byte[16];
        USHORT Word[8];
    } u;
};
typedef struct in6_addr IN6_ADDR, *PIN6_ADDR, *LPIN6_ADDR;
#define s6_addr u.Byte

struct sockaddr_in6 {
    ADDRESS_FAMILY sin6_family;
    USHORT sin6_port;
    ULONG sin6_flowinfo;
    struct in6_addr sin6_addr;
    ULONG sin6_scope_id;
};
typedef struct sockaddr_in6 SOCKADDR_IN6, *PSOCKADDR_IN6, *LPSOCKADDR_IN6;

static_assert(sizeof(sockaddr_in6) == 28);

// Internal linkage: libc has symbols of the same names.
const struct in6_addr in6addr_any = {};
const struct in6_addr in6addr_loopback = {{{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}}};

#define INET_ADDRSTRLEN 22
#define INET6_ADDRSTRLEN 65

#define IP_TOS 3
#define IP_DONTFRAGMENT 14
#define IPV6_V6ONLY 27
#define TCP_KEEPALIVE 3
#define TCP_MAXSEG 4

const char* WSAAPI inet_ntop(INT Family, const void* pAddr, char* pStringBuf, size_t StringBufSize);
INT WSAAPI inet_pton(INT Family, const char* pszAddrString, void* pAddrBuf);
#define InetNtopA inet_ntop
#define InetPtonA inet_pton
