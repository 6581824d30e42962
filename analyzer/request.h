// One request as the analyzer sees it: plain values, so that rules and logs need neither sockets nor
// messages.
#pragma once

#include <cstdint>
#include <string>

/// An IPv4 end point in host order.
struct Endpoint {
    std::uint32_t address = 0;
    std::uint16_t port = 0;
};

struct Request {
    std::uint32_t messageId = 0;
    std::uint32_t operation = 0;
    std::uint32_t processId = 0;
    std::string user;
    std::string window;
    std::string signer;
    Endpoint local;
    Endpoint destination;
    std::uint32_t socketType = 0;
    std::uint32_t protocol = 0;
    std::uint32_t flags = 0;
    std::uint64_t bytesSent = 0;
    std::uint64_t bytesReceived = 0;
    std::uint32_t dataLength = 0;
};

/// "192.0.2.1:443".
std::string ToText(const Endpoint& endpoint);

/// "connect", "client-data", ... or "operation 99".
std::string OperationName(std::uint32_t operation);

/// The code of a name that OperationName gives; 0 when there is none.
std::uint32_t OperationByName(const std::string& name);

/// Whether the layer waits for an answer to this operation.
bool AwaitsAnswer(std::uint32_t operation);

/// Whether it tells of the application's sends and receives.
bool IsTrafficReport(std::uint32_t operation);

/// Whether it tells of the bytes or the ends of a split connection.
bool IsRelayed(std::uint32_t operation);
