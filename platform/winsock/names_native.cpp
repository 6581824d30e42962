// Byte order, numeric addresses, and the resolver for what needs no name server. On Windows programs use the
// system's own. Any thread may call; nothing here reaches a provider or needs Winsock started, but for
// getaddrinfo.
#include <winsock2.h>

#include <ws2tcpip.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "platform/winsock/host_seam.h"
#include "platform/winsock/numeric_address.h"
#include "platform/winsock/provider.h"

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
    std::snprintf(text, sizeof text, "%d.%d.%d.%d", b.s_b1, b.s_b2, b.s_b3, b.s_b4);
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

namespace {

// One result in one block of memory, freed by freeaddrinfo.
struct ResolvedAddress {
    addrinfo info;
    sockaddr_storage address;
};

struct Request {
    int family;
    int socketType;
    int protocol;
    int flags;
    u_short port;  // network order
};

addrinfo* MakeResult(const Request& request, int family, const void* rawAddress) {
    auto* made = new (std::nothrow) ResolvedAddress{};
    if (made == nullptr) return nullptr;
    if (family == AF_INET) {
        auto* v4 = reinterpret_cast<sockaddr_in*>(&made->address);
        v4->sin_family = AF_INET;
        v4->sin_port = request.port;
        std::memcpy(&v4->sin_addr, rawAddress, sizeof v4->sin_addr);
        made->info.ai_addrlen = sizeof *v4;
    } else {
        auto* v6 = reinterpret_cast<sockaddr_in6*>(&made->address);
        v6->sin6_family = AF_INET6;
        v6->sin6_port = request.port;
        std::memcpy(&v6->sin6_addr, rawAddress, sizeof v6->sin6_addr);
        made->info.ai_addrlen = sizeof *v6;
    }
    made->info.ai_family = family;
    made->info.ai_socktype = request.socketType;
    made->info.ai_protocol = request.protocol;
    made->info.ai_addr = reinterpret_cast<sockaddr*>(&made->address);
    return &made->info;
}

bool ParsePort(const char* text, u_short* port) {
    if (text == nullptr || *text == '\0') return true;
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (*end != '\0' || value < 0 || value > 65535) return false;
    *port = htons(static_cast<u_short>(value));
    return true;
}

struct RawAddress {
    int family;
    in6_addr bytes;  // the first four bytes of an IPv4 address
};

RawAddress RawOf(const in_addr& address) {
    RawAddress raw{AF_INET, {}};
    std::memcpy(&raw.bytes, &address, sizeof address);
    return raw;
}

// The addresses of a host, IPv6 first as the system prefers it. 0 or the error.
int Resolve(const char* node, const Request& request, std::vector<RawAddress>* found) {
    in_addr v4{};
    in6_addr v6{};
    if (node != nullptr && winsock_host::ParseIpv4(node, &v4)) {
        found->push_back(RawOf(v4));
    } else if (node != nullptr && winsock_host::ParseIpv6(node, &v6)) {
        found->push_back({AF_INET6, v6});
    } else if (node == nullptr || (request.flags & AI_NUMERICHOST) == 0) {
        const std::string name = node == nullptr ? "localhost" : node;
        if (!name.empty() && name != "localhost") return WSAHOST_NOT_FOUND;
        const bool any = node == nullptr && (request.flags & AI_PASSIVE) != 0;
        v4.s_addr = any ? INADDR_ANY : htonl(INADDR_LOOPBACK);
        found->push_back({AF_INET6, any ? in6addr_any : in6addr_loopback});
        found->push_back(RawOf(v4));
    } else {
        return WSAHOST_NOT_FOUND;
    }
    return 0;
}

int GetAddrInfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result) {
    if (result == nullptr || (node == nullptr && service == nullptr)) return WSAHOST_NOT_FOUND;
    *result = nullptr;
    if (!winsock_host::IsStarted()) return WSANOTINITIALISED;
    Request request{};
    if (hints != nullptr) {
        request = {hints->ai_family, hints->ai_socktype, hints->ai_protocol, hints->ai_flags, 0};
    }
    if (request.family != AF_UNSPEC && request.family != AF_INET && request.family != AF_INET6)
        return WSAEAFNOSUPPORT;
    if (!ParsePort(service, &request.port)) return WSATYPE_NOT_FOUND;
    std::vector<RawAddress> found;
    if (const int error = Resolve(node, request, &found)) return error;
    addrinfo** end = result;
    for (const RawAddress& raw : found) {
        if (request.family != AF_UNSPEC && request.family != raw.family) continue;
        *end = MakeResult(request, raw.family, &raw.bytes);
        if (*end == nullptr) {
            freeaddrinfo(*result);
            *result = nullptr;
            return WSA_NOT_ENOUGH_MEMORY;
        }
        end = &(*end)->ai_next;
    }
    return *result == nullptr ? WSAHOST_NOT_FOUND : 0;
}

}  // namespace

INT WSAAPI getaddrinfo(const char* pNodeName, const char* pServiceName, const ADDRINFOA* pHints,
                       PADDRINFOA* ppResult) {
    winsock_host::HostCall call("getaddrinfo", WSAHOST_NOT_FOUND);
    const int error = call.Faulted() ? static_cast<int>(call.error())
                                     : GetAddrInfo(pNodeName, pServiceName, pHints, ppResult);
    if (error != 0) SetLastError(static_cast<DWORD>(error));
    return error;
}

void WSAAPI freeaddrinfo(PADDRINFOA pAddrInfo) {
    while (pAddrInfo != nullptr) {
        auto* const block = reinterpret_cast<ResolvedAddress*>(pAddrInfo);
        pAddrInfo = pAddrInfo->ai_next;
        delete block;
    }
}
