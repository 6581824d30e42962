// See request_log.h.
#include "analyzer/request_log.h"

#include <chrono>
#include <ctime>
#include <nlohmann/json.hpp>
#include <vector>

#include "analyzer/protocol_names.h"
#include "messages/analyzer_messages.h"

namespace {

std::string Now() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    // One thread writes the log, so the shared result is its own.
    const std::tm utc = *std::gmtime(&seconds);
    char text[40];
    const std::size_t length = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(text + length, sizeof(text) - length, ".%03dZ", static_cast<int>(milliseconds));
    return text;
}

std::vector<std::string> FlagNames(std::uint32_t flags) {
    constexpr const char* names[] = {"count", "report", "inspect", "relay", "keep", "serve"};
    std::vector<std::string> set;
    for (std::uint32_t bit = 0; bit < 6; ++bit) {
        if ((flags & (1u << bit)) != 0) set.emplace_back(names[bit]);
    }
    return set;
}

std::string Joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : ",") + word;
    return text;
}

const char* SocketTypeName(std::uint32_t type) {
    if (type == SOCK_STREAM) return "stream";
    if (type == SOCK_DGRAM) return "datagram";
    return "other";
}

const char* ActionName(RuleAction action) {
    switch (action) {
        case RuleAction::kRefuse:
            return "refuse";
        case RuleAction::kRedirect:
            return "redirect";
        case RuleAction::kAllow:
            break;
    }
    return "allow";
}

const char* BehaviourName(Behaviour behaviour) {
    switch (behaviour) {
        case Behaviour::kSilent:
            return "silent";
        case Behaviour::kGarbage:
            return "garbage";
        case Behaviour::kClose:
            return "close";
        case Behaviour::kAnswer:
            break;
    }
    return "answer";
}

/// The JSON text on one line, with the control characters escaped that JSON allows as they are: U+007F and,
/// in UTF-8 of two bytes, U+0080 to U+009F. Terminals act on them.
template <class Json>
std::string Line(const Json& json) {
    const std::string text = json.dump(-1, ' ', false, Json::error_handler_t::replace);
    std::string line;
    for (std::size_t at = 0; at < text.size(); ++at) {
        auto character = static_cast<unsigned char>(text[at]);
        const auto next = at + 1 < text.size() ? static_cast<unsigned char>(text[at + 1]) : 0u;
        const bool wide = character == 0xC2 && next >= 0x80 && next <= 0x9F;
        if (!wide && character != 0x7F) {
            line += text[at];
            continue;
        }
        if (wide) character = static_cast<unsigned char>(text[++at]);
        char escaped[8];
        std::snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned>(character));
        line += escaped;
    }
    return line;
}

/// In quotes, as JSON has it: one line, whatever the text holds.
std::string Quoted(const std::string& text) {
    return Line(nlohmann::json(text));
}

/// What the analyzer did with the bytes.
std::vector<std::string> Deeds(const InspectionCounts& counts) {
    std::vector<std::string> deeds;
    if (counts.served != 0) deeds.push_back("served " + std::to_string(counts.served));
    if (counts.replaced != 0) deeds.push_back("replaced " + std::to_string(counts.replaced));
    if (counts.cut == ContentAction::kRefuse) deeds.emplace_back("refused");
    if (counts.cut == ContentAction::kCutClient) deeds.emplace_back("cut client");
    if (counts.cut == ContentAction::kCutServer) deeds.emplace_back("cut server");
    if (deeds.empty()) deeds.emplace_back("passed");
    return deeds;
}

}  // namespace

std::string ReadableLine(const std::string& time, const Request& request, const Rule& rule) {
    const Verdict& verdict = rule.verdict;
    std::string line = time + " " + OperationName(request.operation) + " process " +
                       std::to_string(request.processId) + " user " + Quoted(request.user) + " window " +
                       Quoted(request.window) + " signer " + Quoted(request.signer) + " " +
                       SocketTypeName(request.socketType) + " " + ToText(request.local) + " -> " +
                       ToText(request.destination);
    if (request.protocol != 0) line += " protocol " + ProtocolName(request.protocol);
    if (request.flags != 0) line += " flags " + Joined(FlagNames(request.flags));
    if (request.bytesSent != 0 || request.bytesReceived != 0) {
        line += " sent " + std::to_string(request.bytesSent) + " received " +
                std::to_string(request.bytesReceived);
    }
    if (request.dataLength != 0) line += " data " + std::to_string(request.dataLength);
    line += " : ";
    if (verdict.behaviour != Behaviour::kAnswer) {
        line += BehaviourName(verdict.behaviour);
    } else if (!AwaitsAnswer(request.operation)) {
        line += "noted";
    } else {
        line += ActionName(verdict.action);
        if (verdict.action == RuleAction::kRedirect) line += " to " + ToText(verdict.redirect);
        if (verdict.flags != 0) line += " with " + Joined(FlagNames(verdict.flags));
        if (verdict.exempt) line += " and exempt the process";
    }
    if (verdict.delayMilliseconds != 0) line += " after " + std::to_string(verdict.delayMilliseconds) + " ms";
    return line + " (" + Quoted(rule.name) + ")";
}

std::string JsonLine(const std::string& time, const Request& request, const Rule& rule) {
    const Verdict& verdict = rule.verdict;
    nlohmann::ordered_json line = {
        {"time", time},
        {"operation", OperationName(request.operation)},
        {"message_id", request.messageId},
        {"process_id", request.processId},
        {"user", request.user},
        {"window", request.window},
        {"signer", request.signer},
        {"socket_type", request.socketType},
        {"protocol", request.protocol},
        {"protocol_name", ProtocolName(request.protocol)},
        {"local", ToText(request.local)},
        {"destination", ToText(request.destination)},
        {"flags", FlagNames(request.flags)},
        {"bytes_sent", request.bytesSent},
        {"bytes_received", request.bytesReceived},
        {"data_length", request.dataLength},
        {"rule", rule.name},
        {"answered", verdict.behaviour == Behaviour::kAnswer && AwaitsAnswer(request.operation)},
        {"action", ActionName(verdict.action)},
        {"verdict_flags", FlagNames(verdict.flags)},
        {"exempt", verdict.exempt},
        {"behaviour", BehaviourName(verdict.behaviour)},
        {"delay_ms", verdict.delayMilliseconds},
    };
    if (verdict.action == RuleAction::kRedirect) line["redirect"] = ToText(verdict.redirect);
    return Line(line);
}

std::string ReadableInspectedLine(const std::string& time, const Request& first, const std::string& rule,
                                  const InspectionCounts& counts) {
    const auto direction = [](const char* name, const InspectionCounts::Direction& bytes) {
        return std::string(" ") + name + " sent " + std::to_string(bytes.received) + " passed " +
               std::to_string(bytes.passed);
    };
    return time + " inspected process " + std::to_string(first.processId) + " user " + Quoted(first.user) +
           " " + SocketTypeName(first.socketType) + " " + ToText(first.local) + " -> " +
           ToText(first.destination) + direction("client", counts.client) +
           direction("server", counts.server) + " : " + Joined(Deeds(counts)) + " (" + Quoted(rule) + ")";
}

std::string JsonInspectedLine(const std::string& time, const Request& first, const std::string& rule,
                              const InspectionCounts& counts) {
    return Line(nlohmann::ordered_json{
        {"time", time},
        {"inspected", Deeds(counts)},
        {"process_id", first.processId},
        {"user", first.user},
        {"local", ToText(first.local)},
        {"destination", ToText(first.destination)},
        {"client_bytes", counts.client.received},
        {"client_bytes_passed", counts.client.passed},
        {"server_bytes", counts.server.received},
        {"server_bytes_passed", counts.server.passed},
        {"replaced", counts.replaced},
        {"rule", rule},
    });
}

std::string DroppedLine(LogFormat format, std::size_t count) {
    const std::string number = std::to_string(count);
    return format == LogFormat::kJson ? "{\"dropped_lines\":" + number + "}"
                                      : number + " lines dropped, since nobody read them";
}

void RequestLog::Write(const Request& request, const Rule& rule) {
    out_->Write(format_ == LogFormat::kJson ? JsonLine(Now(), request, rule)
                                            : ReadableLine(Now(), request, rule));
}

void RequestLog::WriteInspected(const Request& first, const std::string& rule,
                                const InspectionCounts& counts) {
    out_->Write(format_ == LogFormat::kJson ? JsonInspectedLine(Now(), first, rule, counts)
                                            : ReadableInspectedLine(Now(), first, rule, counts));
}
