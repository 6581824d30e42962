// Reading and writing of endpoints; see the header.
#include "apps/shared/endpoint.h"

#include <ws2tcpip.h>

#include <charconv>

std::optional<unsigned short> ParsePort(const std::string& text) {
    unsigned short port = 0;
    const char* const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, port);
    if (error != std::errc() || stopped != end) return std::nullopt;
    return port;
}

std::optional<sockaddr_in> ParseEndpoint(const std::string& text, unsigned short defaultPort) {
    const std::size_t colon = text.find(':');
    sockaddr_in endpoint = LoopbackEndpoint(defaultPort);
    if (inet_pton(AF_INET, text.substr(0, colon).c_str(), &endpoint.sin_addr) != 1) return std::nullopt;
    if (colon != std::string::npos) {
        const auto port = ParsePort(text.substr(colon + 1));
        if (!port) return std::nullopt;
        endpoint.sin_port = htons(*port);
    }
    return endpoint;
}

std::string FormatEndpoint(const sockaddr_in& endpoint) {
    char address[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, const_cast<in_addr*>(&endpoint.sin_addr), address, sizeof(address));
    return std::string(address) + ":" + std::to_string(ntohs(endpoint.sin_port));
}

sockaddr_in LoopbackEndpoint(unsigned short port) {
    sockaddr_in endpoint = {};
    endpoint.sin_family = AF_INET;
    endpoint.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    endpoint.sin_port = htons(port);
    return endpoint;
}
