// See request.h.
#include "analyzer/request.h"

#include <cstdio>

#include "messages/analyzer_messages.h"

namespace {

struct NamedOperation {
    std::uint32_t code;
    const char* name;
    bool awaitsAnswer;
};

constexpr NamedOperation kOperations[] = {
    {OpCloseSocket, "close", false},
    {OpSend, "send", true},
    {OpSendProtocol, "send-protocol", true},
    {OpRecv, "receive", true},
    {OpRecvProtocol, "receive-protocol", true},
    {OpClientClosed, "client-closed", false},
    {OpServerClosed, "server-closed", false},
    {OpClientData, "client-data", false},
    {OpServerData, "server-data", false},
    {OpBind, "bind", true},
    {OpConnect, "connect", true},
};

const NamedOperation* FindOperation(std::uint32_t code) {
    for (const NamedOperation& operation : kOperations) {
        if (operation.code == code) return &operation;
    }
    return nullptr;
}

}  // namespace

std::string ToText(const Endpoint& endpoint) {
    char text[32];
    std::snprintf(text, sizeof(text), "%u.%u.%u.%u:%u", endpoint.address >> 24,
                  (endpoint.address >> 16) & 255, (endpoint.address >> 8) & 255, endpoint.address & 255,
                  static_cast<unsigned>(endpoint.port));
    return text;
}

std::string OperationName(std::uint32_t operation) {
    const NamedOperation* known = FindOperation(operation);
    return known != nullptr ? known->name : "operation " + std::to_string(operation);
}

std::uint32_t OperationByName(const std::string& name) {
    for (const NamedOperation& operation : kOperations) {
        if (name == operation.name) return operation.code;
    }
    return 0;
}

bool AwaitsAnswer(std::uint32_t operation) {
    const NamedOperation* known = FindOperation(operation);
    return known != nullptr && known->awaitsAnswer;
}

bool IsTrafficReport(std::uint32_t operation) {
    return operation >= OpSend && operation <= OpRecvProtocol;
}

bool IsRelayed(std::uint32_t operation) {
    return operation >= OpClientClosed && operation <= OpServerData;
}
