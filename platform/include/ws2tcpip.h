// Addresses of both families and the resolver functions, as on Windows. The resolver knows numeric addresses,
// the empty host and "localhost" only: nothing in this project asks a name server.
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
#define s6_words u.Word

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
#define IN6ADDR_ANY_INIT \
    {                    \
        {                \
            { 0 }        \
        }                \
    }
#define IN6ADDR_LOOPBACK_INIT                                  \
    {                                                          \
        {                                                      \
            { 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1 } \
        }                                                      \
    }

struct ip_mreq {
    struct in_addr imr_multiaddr;
    struct in_addr imr_interface;
};

struct ipv6_mreq {
    struct in6_addr ipv6mr_multiaddr;
    ULONG ipv6mr_interface;
};

#define INET_ADDRSTRLEN 22
#define INET6_ADDRSTRLEN 65

#define IP_OPTIONS 1
#define IP_HDRINCL 2
#define IP_TOS 3
#define IP_TTL 4
#define IP_MULTICAST_IF 9
#define IP_MULTICAST_TTL 10
#define IP_MULTICAST_LOOP 11
#define IP_ADD_MEMBERSHIP 12
#define IP_DROP_MEMBERSHIP 13
#define IP_DONTFRAGMENT 14
#define IP_PKTINFO 19
#define IPV6_UNICAST_HOPS 4
#define IPV6_MULTICAST_IF 9
#define IPV6_MULTICAST_HOPS 10
#define IPV6_MULTICAST_LOOP 11
#define IPV6_ADD_MEMBERSHIP 12
#define IPV6_DROP_MEMBERSHIP 13
#define IPV6_PKTINFO 19
#define IPV6_V6ONLY 27
#define TCP_EXPEDITED_1122 0x0002
#define TCP_KEEPALIVE 3
#define TCP_MAXSEG 4

#define AI_PASSIVE 0x00000001
#define AI_CANONNAME 0x00000002
#define AI_NUMERICHOST 0x00000004
#define AI_NUMERICSERV 0x00000008

#define EAI_AGAIN WSATRY_AGAIN
#define EAI_BADFLAGS WSAEINVAL
#define EAI_FAIL WSANO_RECOVERY
#define EAI_FAMILY WSAEAFNOSUPPORT
#define EAI_MEMORY WSA_NOT_ENOUGH_MEMORY
#define EAI_NONAME WSAHOST_NOT_FOUND
#define EAI_SERVICE WSATYPE_NOT_FOUND
#define EAI_SOCKTYPE WSAESOCKTNOSUPPORT

typedef struct addrinfo {
    int ai_flags;
    int ai_family;
    int ai_socktype;
    int ai_protocol;
    size_t ai_addrlen;
    char* ai_canonname;
    struct sockaddr* ai_addr;
    struct addrinfo* ai_next;
} ADDRINFOA, *PADDRINFOA;

/// Returns 0 or the error itself, which is the thread's last error, too. Numeric services only.
INT WSAAPI getaddrinfo(const char* pNodeName, const char* pServiceName, const ADDRINFOA* pHints,
                       PADDRINFOA* ppResult);
void WSAAPI freeaddrinfo(PADDRINFOA pAddrInfo);
const char* WSAAPI inet_ntop(INT Family, const void* pAddr, char* pStringBuf, size_t StringBufSize);
INT WSAAPI inet_pton(INT Family, const char* pszAddrString, void* pAddrBuf);
#define InetNtopA inet_ntop
#define InetPtonA inet_pton
