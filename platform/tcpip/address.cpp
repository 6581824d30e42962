// Addresses are copied byte by byte, since a caller's address may lie anywhere.
#include "platform/tcpip/address.h"

#include <ws2tcpip.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "platform/winsock/numeric_address.h"

namespace tcpip {
namespace {

std::uint16_t SwapToHost(std::uint16_t networkOrder) {
    unsigned char bytes[2];
    std::memcpy(bytes, &networkOrder, 2);
    return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

/// A decimal number up to `maximum` at `*text`, which is moved behind it; -1 when there is none.
long ParseNumber(const char** text, long maximum) {
    long value = 0;
    const char* at = *text;
    for (; *at >= '0' && *at <= '9'; ++at) {
        value = value * 10 + (*at - '0');
        if (value > maximum) return -1;
    }
    if (at == *text) return -1;
    *text = at;
    return value;
}

in6_addr AddressOf(const Endpoint& endpoint) {
    in6_addr address;
    std::memcpy(&address, endpoint.address.data(), sizeof(address));
    return address;
}

/// The address alone, which ends at the first of the characters `behind`; `*text` is moved there.
bool ParseHost(const char** text, const char* behind, Endpoint* endpoint) {
    const std::string host(*text, std::strcspn(*text, behind));
    *text += host.size();
    in6_addr v6;
    in_addr v4;
    const bool parsed = endpoint->v6 ? winsock_host::ParseIpv6(host.c_str(), &v6)
                                     : winsock_host::ParseIpv4(host.c_str(), &v4);
    if (!parsed) return false;
    std::memcpy(endpoint->address.data(), endpoint->v6 ? static_cast<const void*>(&v6) : &v4,
                endpoint->v6 ? sizeof(v6) : sizeof(v4));
    return true;
}

}  // namespace

int AddressLength(bool v6) {
    return static_cast<int>(v6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in));
}

int ReadAddress(const sockaddr* name, int length, bool v6, Endpoint* endpoint) {
    if (name == nullptr || length < static_cast<int>(sizeof(ADDRESS_FAMILY))) return WSAEFAULT;
    ADDRESS_FAMILY family;
    std::memcpy(&family, name, sizeof(family));
    if (length < AddressLength(v6)) return WSAEFAULT;
    if (family != (v6 ? AF_INET6 : AF_INET)) return WSAEAFNOSUPPORT;
    *endpoint = AnyEndpoint(v6);
    if (v6) {
        sockaddr_in6 address;
        std::memcpy(&address, name, sizeof(address));
        endpoint->port = SwapToHost(address.sin6_port);
        endpoint->flowInfo = address.sin6_flowinfo;
        endpoint->scopeId = address.sin6_scope_id;
        std::memcpy(endpoint->address.data(), &address.sin6_addr, 16);
    } else {
        sockaddr_in address;
        std::memcpy(&address, name, sizeof(address));
        endpoint->port = SwapToHost(address.sin_port);
        std::memcpy(endpoint->address.data(), &address.sin_addr, 4);
    }
    return 0;
}

int WriteAddress(const Endpoint& endpoint, sockaddr* name, int* length) {
    if (name == nullptr || length == nullptr || *length < AddressLength(endpoint.v6)) return WSAEFAULT;
    if (endpoint.v6) {
        sockaddr_in6 address = {};
        address.sin6_family = AF_INET6;
        address.sin6_port = SwapToHost(endpoint.port);
        address.sin6_flowinfo = endpoint.flowInfo;
        std::memcpy(&address.sin6_addr, endpoint.address.data(), 16);
        address.sin6_scope_id = endpoint.scopeId;
        std::memcpy(name, &address, sizeof(address));
    } else {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = SwapToHost(endpoint.port);
        std::memcpy(&address.sin_addr, endpoint.address.data(), 4);
        std::memcpy(name, &address, sizeof(address));
    }
    *length = AddressLength(endpoint.v6);
    return 0;
}

unsigned FormatAddress(const Endpoint& endpoint, char* text) {
    const unsigned port = endpoint.port;
    if (!endpoint.v6) {
        const auto& b = endpoint.address;
        int length = std::snprintf(text, kMaximumAddressText, "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
        if (port != 0) length += std::snprintf(text + length, 8, ":%u", port);
        return static_cast<unsigned>(length);
    }
    int length = 0;
    if (port != 0) text[length++] = '[';
    length += std::snprintf(text + length, 48, "%s", winsock_host::FormatIpv6(AddressOf(endpoint)).c_str());
    if (endpoint.scopeId != 0) length += std::snprintf(text + length, 12, "%%%u", endpoint.scopeId);
    if (port != 0) length += std::snprintf(text + length, 8, "]:%u", port);
    return static_cast<unsigned>(length);
}

bool ParseAddress(const char* text, bool v6, Endpoint* endpoint) {
    Endpoint parsed = AnyEndpoint(v6);
    bool portMayFollow = true;
    if (v6) {
        const bool bracketed = *text == '[';
        if (bracketed) ++text;
        if (!ParseHost(&text, "%]", &parsed)) return false;
        if (*text == '%') {
            const long scope = ParseNumber(&++text, 0x7FFFFFFF);
            if (scope < 0) return false;
            parsed.scopeId = static_cast<std::uint32_t>(scope);
        }
        if (bracketed && *text++ != ']') return false;
        portMayFollow = bracketed;
    } else if (!ParseHost(&text, ":", &parsed)) {
        return false;
    }
    if (portMayFollow && *text == ':') {
        const long port = ParseNumber(&++text, 65535);
        if (port < 0) return false;
        parsed.port = static_cast<std::uint16_t>(port);
    }
    if (*text != 0) return false;
    *endpoint = parsed;
    return true;
}

}  // namespace tcpip
