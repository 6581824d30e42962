// Which destinations the analyzer is never asked about. The rules are about the numbers of a dotted address
// text; for IPv4, the everyday case, they are taken from the address itself.
#include "relay/channel/local_destination.h"

#include <winsock2.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "provider/contexts/socket_context.h"
#include "relay/channel/verdict_flags.h"

namespace {

struct Octets {
    unsigned char first;
    unsigned char second;
    unsigned char fourth;
};

Octets OctetsOf(const sockaddr_in& address) {
    unsigned char bytes[4];
    std::memcpy(bytes, &address.sin_addr, sizeof(bytes));
    return {bytes[0], bytes[1], bytes[3]};
}

Octets OctetsOf(const char* text) {
    return {static_cast<unsigned char>(AddressOctet(text, 0)),
            static_cast<unsigned char>(AddressOctet(text, 1)),
            static_cast<unsigned char>(AddressOctet(text, 3))};
}

Octets OctetsOfText(SOCKADDR_STORAGE address) {
    char text[128];
    DWORD length = sizeof(text);
    if (WSAAddressToStringA(reinterpret_cast<sockaddr*>(&address), sizeof(sockaddr_in), nullptr, text,
                            &length) != 0) {
        return OctetsOf("<undefined>");
    }
    return OctetsOf(text);
}

/// Loopback, private, broadcast or multicast, or no single host.
bool IsLocal(const Octets& octets) {
    if (octets.first == 127 || octets.first == 10) return true;
    if (octets.first == 172 && octets.second >= 16 && octets.second <= 31) return true;
    if (octets.first == 192 && octets.second == 168) return true;
    if (octets.first == 224 || octets.first == 255 || octets.first == 0) return true;
    return octets.fourth == 255 || octets.fourth == 0;
}

bool IsLocalAddress(const SOCKADDR_STORAGE& address) {
    // IPv6 texts begin with whatever number the address begins with, which says nothing here.
    if (address.ss_family == AF_INET6) return true;
    if (address.ss_family == AF_INET) return IsLocal(OctetsOf(reinterpret_cast<const sockaddr_in&>(address)));
    return IsLocal(OctetsOfText(address));
}

}  // namespace

signed char AddressOctet(const char* text, int n) {
    std::string_view field(text);
    for (; n > 0; --n) {
        const std::size_t dot = field.find('.');
        if (dot == std::string_view::npos) break;
        field.remove_prefix(dot + 1);
    }
    // The number ends at the first character that isn't a digit, so the rest of the text does no harm.
    return static_cast<signed char>(std::strtol(field.data(), nullptr, 10));
}

bool IsLocalDestination(SocketContext* context, const SOCKADDR_STORAGE& destination) {
    const bool inspectable = context->SocketType == SOCK_STREAM || context->SocketType == SOCK_DGRAM;
    if (inspectable && !IsLocalAddress(destination)) return false;
    ClearTrafficFlags(context);
    return true;
}

bool IsLocalDestination(SocketContext* context) {
    return IsLocalDestination(context, context->DestinationAddress.Load());
}
