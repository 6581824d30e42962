// See exchange_report.h.
#include "apps/shared/exchange_report.h"

#include "apps/shared/endpoint.h"
#include "apps/shared/winsock_session.h"

#include <windows.h>

#include <nlohmann/json.hpp>

#include <iostream>
#include <stdexcept>

namespace {

void PrintJson(const Target& target, const ExchangeResult& result) {
    // Bytes that are no UTF-8 are replaced: a server may answer anything.
    const nlohmann::ordered_json line = {
        {"target", FormatEndpoint(target.server)},
        {"failed", result.failedStep},
        {"error", result.error},
        {"peer", result.peer},
        {"status", result.status},
        {"bytes", result.bytes},
        {"body", result.firstBodyLine},
        {"checksum", result.checksum},
        {"elapsed_ms", static_cast<unsigned long>(result.elapsedMilliseconds)},
        {"process_id", static_cast<unsigned long>(GetCurrentProcessId())},
    };
    std::cout << line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << std::endl;
}

void PrintText(const Target& target, const ExchangeResult& result) {
    std::cout << target.text << ": ";
    if (result.Succeeded()) {
        std::cout << "status " << result.status << ", " << result.bytes << " bytes from " << result.peer
                  << ": " << result.firstBodyLine;
    } else {
        std::cout << result.failedStep << " failed with " << DescribeWinsockError(result.error);
    }
    std::cout << " (" << result.elapsedMilliseconds << " ms)" << std::endl;
}

}  // namespace

Target ParseTarget(const std::string& text, unsigned short defaultPort) {
    const std::string scheme = "http://";
    const std::string rest = text.rfind(scheme, 0) == 0 ? text.substr(scheme.size()) : text;
    const std::size_t slash = rest.find('/');
    const auto server = ParseEndpoint(rest.substr(0, slash), defaultPort);
    if (!server)
        throw std::runtime_error("\"" + text + "\" is not a numeric address: http://A.B.C.D[:PORT][/PATH]");
    return {text, *server, slash == std::string::npos ? "/" : rest.substr(slash)};
}

bool Passed(const char* step, int error, ExchangeResult* result) {
    if (error == 0) return true;
    result->failedStep = step;
    result->error = error;
    return false;
}

std::string PeerOf(SOCKET socket) {
    sockaddr_in peer = {};
    int length = sizeof(peer);
    if (getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &length) != 0) return "";
    return FormatEndpoint(peer);
}

std::string FirstLine(const std::string& text) {
    return text.substr(0, text.find_first_of("\r\n"));
}

void PrintResult(const Target& target, const ExchangeResult& result, bool json) {
    (json ? PrintJson : PrintText)(target, result);
}
