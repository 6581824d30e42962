// Byte order and numeric addresses. On Windows programs use the system's own. Any thread may call; nothing
// here reaches a provider or needs Winsock started.
#include <winsock2.h>

#include <ws2tcpip.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "platform/winsock/numeric_address.h"

u_long WSAAPI htonl(u_long hostlong) {
    return __builtin_bswap32(hostlong);
}
u_short WSAAPI htons(u_short hostshort) {
    return __builtin_bswap16(hostshort);
}
u_long WSAAPI ntohl(u_long netlong) {
    return __builtin_bswap32(netlong);
}
u_short WSAAPI ntohs(u_short netshort) {
    return __builtin_bswap16(netshort);
}

ULONG WSAAPI inet_addr(const char* cp) {
    in_addr address{};
    return cp != nullptr && winsock_host::ParseLooseIpv4(cp, &address) ? address.s_addr : INADDR_NONE;
}

char* WSAAPI inet_ntoa(struct in_addr in) {
    static thread_local char text[16];
    const auto& b = in.S_un.S_un_b;
    std::snprintf(text, sizeof(text), "%d.%d.%d.%d", b.s_b1, b.s_b2, b.s_b3, b.s_b4);
    return text;
}

const char* WSAAPI inet_ntop(INT Family, const void* pAddr, char* pStringBuf, size_t StringBufSize) {
    if ((Family != AF_INET && Family != AF_INET6) || pAddr == nullptr || pStringBuf == nullptr) {
        SetLastError(pAddr == nullptr || pStringBuf == nullptr ? ERROR_INVALID_PARAMETER : WSAEAFNOSUPPORT);
        return nullptr;
    }
    const std::string text = Family == AF_INET
                                 ? winsock_host::FormatIpv4(*static_cast<const in_addr*>(pAddr))
                                 : winsock_host::FormatIpv6(*static_cast<const in6_addr*>(pAddr));
    if (text.size() >= StringBufSize) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    std::memcpy(pStringBuf, text.c_str(), text.size() + 1);
    return pStringBuf;
}

INT WSAAPI inet_pton(INT Family, const char* pszAddrString, void* pAddrBuf) {
    if (pszAddrString == nullptr || pAddrBuf == nullptr) {
        SetLastError(WSAEFAULT);
        return -1;
    }
    if (Family == AF_INET)
        return winsock_host::ParseIpv4(pszAddrString, static_cast<in_addr*>(pAddrBuf)) ? 1 : 0;
    if (Family == AF_INET6)
        return winsock_host::ParseIpv6(pszAddrString, static_cast<in6_addr*>(pAddrBuf)) ? 1 : 0;
    SetLastError(WSAEAFNOSUPPORT);
    return -1;
}
