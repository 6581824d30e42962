// Numeric addresses as text, strict and loose.
#include "platform/winsock/numeric_address.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace winsock_host {
namespace {

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

int HexValue(char c) {
    if (IsDigit(c)) return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// One to four hexadecimal digits; advances `text`.
bool ParseGroup(const char*& text, unsigned* value) {
    *value = 0;
    int digits = 0;
    for (; HexValue(*text) >= 0; ++text) {
        if (++digits > 4) return false;
        *value = *value * 16 + static_cast<unsigned>(HexValue(*text));
    }
    return digits > 0;
}

struct Groups {
    UCHAR bytes[16];
    int count = 0;   // bytes filled
    int gapAt = -1;  // where "::" stands
};

// The groups of an IPv6 text in order, without the zeros that "::" stands for.
bool ParseGroups(const char* text, Groups* groups) {
    if (text[0] == ':' && text[1] != ':') return false;
    while (*text != '\0') {
        if (text[0] == ':' && text[1] == ':') {
            if (groups->gapAt >= 0) return false;
            groups->gapAt = groups->count;
            text += 2;
            if (*text == ':') return false;
            continue;
        }
        if (*text == ':') {
            ++text;
            if (*text == '\0') return false;
        }
        in_addr v4{};
        if (groups->count <= 12 && std::strchr(text, ':') == nullptr && std::strchr(text, '.') != nullptr) {
            if (!ParseIpv4(text, &v4)) return false;
            std::memcpy(groups->bytes + groups->count, &v4, sizeof(v4));
            groups->count += 4;
            return true;
        }
        unsigned value = 0;
        if (groups->count > 14 || !ParseGroup(text, &value) || (*text != '\0' && *text != ':')) return false;
        groups->bytes[groups->count++] = static_cast<UCHAR>(value >> 8);
        groups->bytes[groups->count++] = static_cast<UCHAR>(value);
    }
    return true;
}

}  // namespace

bool ParseIpv4(const char* text, in_addr* address) {
    UCHAR bytes[4];
    for (int i = 0; i < 4; ++i) {
        if (i > 0 && *text++ != '.') return false;
        int value = 0;
        int digits = 0;
        for (; IsDigit(*text) && digits < 3; ++text, ++digits)
            value = value * 10 + (*text - '0');
        if (digits == 0 || value > 255) return false;
        bytes[i] = static_cast<UCHAR>(value);
    }
    if (*text != '\0') return false;
    std::memcpy(address, bytes, sizeof(bytes));
    return true;
}

bool ParseLooseIpv4(const char* text, in_addr* address) {
    ULONG parts[4];
    int count = 0;
    for (;;) {
        if (count == 4 || !IsDigit(*text)) return false;
        char* end = nullptr;
        const unsigned long long value = std::strtoull(text, &end, 0);
        if (value > 0xFFFFFFFFull) return false;
        parts[count++] = static_cast<ULONG>(value);
        text = end;
        if (*text != '.') break;
        ++text;
    }
    if (*text != '\0' && *text != ' ') return false;
    const int lastBits = 8 * (5 - count);
    ULONG host = parts[count - 1];
    if (lastBits < 32 && host >> lastBits != 0) return false;
    for (int i = 0; i < count - 1; ++i) {
        if (parts[i] > 255) return false;
        host |= parts[i] << (24 - 8 * i);
    }
    address->s_addr = htonl(host);
    return true;
}

bool ParseIpv6(const char* text, in6_addr* address) {
    Groups groups{};
    groups.gapAt = -1;
    if (*text == '\0' || !ParseGroups(text, &groups)) return false;
    const int missing = 16 - groups.count;
    if (groups.gapAt < 0 ? missing != 0 : missing < 2) return false;
    const int head = groups.gapAt < 0 ? 16 : groups.gapAt;
    std::memset(address, 0, sizeof(*address));
    std::memcpy(address->u.Byte, groups.bytes, static_cast<std::size_t>(head));
    if (head < 16) {
        std::memcpy(address->u.Byte + head + missing, groups.bytes + head,
                    static_cast<std::size_t>(groups.count - head));
    }
    return true;
}

std::string FormatIpv4(const in_addr& address) {
    char text[16];
    const auto& b = address.S_un.S_un_b;
    std::snprintf(text, sizeof(text), "%d.%d.%d.%d", b.s_b1, b.s_b2, b.s_b3, b.s_b4);
    return text;
}

namespace {

/// Whether the last four bytes are an IPv4 address.
bool EndsInIpv4(const unsigned (&groups)[8]) {
    if ((groups[4] & ~0x200u) == 0 && groups[5] == 0x5efe) return true;
    if ((groups[0] | groups[1] | groups[2] | groups[3]) != 0 || groups[6] == 0) return false;
    if (groups[4] == 0) return groups[5] == 0 || groups[5] == 0xffff;
    return groups[4] == 0xffff && groups[5] == 0;
}

}  // namespace

std::string FormatIpv6(const in6_addr& address) {
    unsigned groups[8];
    const UCHAR* pair = address.u.Byte;
    for (unsigned& group : groups) {
        group = pair[0] * 256u + pair[1];
        pair += 2;
    }
    const int groupCount = EndsInIpv4(groups) ? 6 : 8;
    int gapAt = -1;
    int gapLength = 1;
    for (int i = 0; i < groupCount; ++i) {
        int length = 0;
        while (i + length < groupCount && groups[i + length] == 0)
            ++length;
        if (length > gapLength) {
            gapAt = i;
            gapLength = length;
        }
    }
    std::string text;
    for (int i = 0; i < groupCount; ++i) {
        if (i == gapAt) {
            text += "::";
            i += gapLength - 1;
            continue;
        }
        if (!text.empty() && text.back() != ':') text += ':';
        char group[8];
        std::snprintf(group, sizeof(group), "%x", groups[i]);
        text += group;
    }
    if (groupCount == 8) return text;
    in_addr v4{};
    std::memcpy(&v4, address.u.Byte + 12, sizeof(v4));
    if (text.back() != ':') text += ':';
    return text + FormatIpv4(v4);
}

}  // namespace winsock_host
