// One end of a connection, in terms of neither Windows nor the kernel. Everything between the operations and
// the kernel seam speaks of endpoints, so that only the two edges know a sockaddr layout.
#pragma once

#include <array>
#include <cstdint>

namespace tcpip {

struct Endpoint {
    bool v6 = false;
    std::uint16_t port = 0;                     ///< host order
    std::array<std::uint8_t, 16> address = {};  ///< network order; the first four bytes of an IPv4 address
    std::uint32_t flowInfo = 0;
    std::uint32_t scopeId = 0;

    friend bool operator==(const Endpoint& a, const Endpoint& b) {
        return a.v6 == b.v6 && a.port == b.port && a.address == b.address && a.scopeId == b.scopeId;
    }
};

/// The unspecified address of the family, port 0.
inline Endpoint AnyEndpoint(bool v6) {
    Endpoint any;
    any.v6 = v6;
    return any;
}

/// 127.0.0.1 or ::1 with `port`.
inline Endpoint LoopbackEndpoint(bool v6, std::uint16_t port) {
    Endpoint loopback;
    loopback.v6 = v6;
    loopback.port = port;
    if (v6) {
        loopback.address[15] = 1;
    } else {
        loopback.address[0] = 127;
        loopback.address[3] = 1;
    }
    return loopback;
}

/// The IPv4 address inside an IPv4-mapped IPv6 address starts here; -1 when it is none.
inline int MappedV4Offset(const Endpoint& endpoint) {
    if (!endpoint.v6) return 0;
    for (int i = 0; i < 10; ++i) {
        if (endpoint.address[static_cast<std::size_t>(i)] != 0) return -1;
    }
    return endpoint.address[10] == 0xFF && endpoint.address[11] == 0xFF ? 12 : -1;
}

inline bool IsUnspecified(const Endpoint& endpoint) {
    return endpoint.address == std::array<std::uint8_t, 16>{};
}

inline bool IsLoopback(const Endpoint& endpoint) {
    const int v4 = MappedV4Offset(endpoint);
    if (v4 >= 0) return endpoint.address[static_cast<std::size_t>(v4)] == 127;
    return endpoint.address == LoopbackEndpoint(true, 0).address;
}

inline bool IsMulticast(const Endpoint& endpoint) {
    return endpoint.v6 ? endpoint.address[0] == 0xFF : (endpoint.address[0] & 0xF0) == 0xE0;
}

}  // namespace tcpip
