// Addresses are copied byte by byte, since a caller's address may lie anywhere. The text forms are read and
// written here rather than by libc, which would accept and produce forms that Windows does not.
#include "platform/tcpip/address.h"

#include <ws2tcpip.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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

bool ParseV4(const char** text, std::uint8_t* bytes) {
    for (int i = 0; i < 4; ++i) {
        if (i > 0 && *(*text)++ != '.') return false;
        const long byte = ParseNumber(text, 255);
        if (byte < 0) return false;
        bytes[i] = static_cast<std::uint8_t>(byte);
    }
    return true;
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

/// Eight groups of hexadecimal digits, one run of zero groups left out as "::", the last two perhaps as an
/// IPv4 address. `*text` is moved to the first character that cannot belong to it.
bool ParseV6(const char** text, std::uint8_t* bytes) {
    std::uint8_t found[16] = {};
    int count = 0;
    int gap = -1;
    const char* at = *text;
    if (at[0] == ':' && at[1] == ':') {
        gap = 0;
        at += 2;
    }
    while (count < 16 && HexDigit(*at) >= 0) {
        const char* group = at;
        unsigned value = 0;
        for (; HexDigit(*at) >= 0; ++at) {
            if (at - group == 4) return false;
            value = value << 4 | static_cast<unsigned>(HexDigit(*at));
        }
        if (*at == '.') {
            if (count > 12 || !ParseV4(&(at = group), found + count)) return false;
            count += 4;
            break;
        }
        found[count++] = static_cast<std::uint8_t>(value >> 8);
        found[count++] = static_cast<std::uint8_t>(value);
        if (at[0] == ':' && at[1] == ':') {
            if (gap >= 0) return false;
            gap = count;
            at += 2;
        } else if (at[0] == ':' && HexDigit(at[1]) >= 0) {
            ++at;
        } else {
            break;
        }
    }
    if (gap < 0 ? count != 16 : count > 14) return false;
    std::memset(bytes, 0, 16);
    const int before = gap < 0 ? 16 : gap;
    std::memcpy(bytes, found, static_cast<std::size_t>(before));
    std::memcpy(bytes + 16 - (count - before), found + before,
                static_cast<std::size_t>(std::max(count - before, 0)));
    *text = at;
    return true;
}

/// Whether Windows writes the last 32 bits as an IPv4 address: those that are compatible with one, mapped or
/// translated from one, or lead to one through a tunnel.
bool EndsInV4(const unsigned* groups) {
    if (groups[5] == 0x5EFE && (groups[4] & ~0x200u) == 0) return true;
    if ((groups[0] | groups[1] | groups[2] | groups[3]) != 0 || groups[6] == 0) return false;
    if (groups[4] == 0) return groups[5] == 0 || groups[5] == 0xFFFF;
    return groups[4] == 0xFFFF && groups[5] == 0;
}

int FormatV6(const Endpoint& endpoint, char* text, std::size_t size) {
    unsigned groups[8];
    for (std::size_t i = 0; i < 8; ++i)
        groups[i] = endpoint.address[2 * i] * 256u + endpoint.address[2 * i + 1];
    const int count = EndsInV4(groups) ? 6 : 8;
    // The longest run of at least two zero groups, the first of equals, is left out.
    int gapStart = -1, gapLength = 1;
    for (int i = 0; i < count;) {
        int end = i;
        while (end < count && groups[end] == 0)
            ++end;
        if (end - i > gapLength) {
            gapStart = i;
            gapLength = end - i;
        }
        i = std::max(end, i + 1);
    }
    int length = 0;
    const auto room = [&] { return size - static_cast<std::size_t>(length); };
    const auto separator = [&](int i) {
        return i > 0 && (gapStart < 0 || i != gapStart + gapLength) ? ":" : "";
    };
    for (int i = 0; i < count;) {
        if (i == gapStart) {
            length += std::snprintf(text + length, room(), "::");
            i += gapLength;
            continue;
        }
        length += std::snprintf(text + length, room(), "%s%x", separator(i), groups[i]);
        ++i;
    }
    if (count == 6) {
        const std::uint8_t* v4 = endpoint.address.data() + 12;
        length +=
            std::snprintf(text + length, room(), "%s%u.%u.%u.%u", separator(6), v4[0], v4[1], v4[2], v4[3]);
    }
    return length;
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
    length += FormatV6(endpoint, text + length, 48);
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
        if (!ParseV6(&text, parsed.address.data())) return false;
        if (*text == '%') {
            const long scope = ParseNumber(&++text, 0x7FFFFFFF);
            if (scope < 0) return false;
            parsed.scopeId = static_cast<std::uint32_t>(scope);
        }
        if (bracketed && *text++ != ']') return false;
        portMayFollow = bracketed;
    } else if (!ParseV4(&text, parsed.address.data())) {
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
