// See traffic_summary.h.
#include "analyzer/traffic_summary.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "analyzer/protocol_names.h"
#include "messages/analyzer_messages.h"

namespace {

constexpr std::uint32_t kFlagCount = 0x01;

/// Beyond so many rows, connections of new ones are added up in one that names nobody.
constexpr std::size_t kMostRows = 4096;

}  // namespace

void ConnectionTally::Bytes::Add(std::uint64_t count, bool startsAnew) {
    if (startsAnew) {
        counted += count;
    } else {
        goingOn = std::max(goingOn, count);
    }
}

void ConnectionTally::Add(const Request& request, const Rule& rule) {
    ++questions_;
    last_ = request;
    if (request.destination.address != 0) destination_ = request.destination;
    if (request.protocol != 0) protocol_ = request.protocol;
    const bool startsAnew = (request.flags & kFlagCount) != 0;
    sent_.Add(request.bytesSent, startsAnew);
    received_.Add(request.bytesReceived, startsAnew);
    if (AwaitsAnswer(request.operation) && rule.verdict.action == RuleAction::kRefuse) ++refused_;
}

void TrafficSummary::Add(const ConnectionTally& connection) {
    if (connection.IsEmpty()) return;
    Key key = {connection.last_.processId, ToText(connection.destination_),
               ProtocolName(connection.protocol_)};
    if (rows_.size() >= kMostRows && rows_.count(key) == 0) key = {0, "others", "any"};
    Row& row = rows_[key];
    ++row.connections;
    row.sent += connection.sent_.Total();
    row.received += connection.received_.Total();
    row.refused += connection.refused_;
}

std::vector<std::string> TrafficSummary::Table() const {
    std::vector<std::string> lines;
    if (rows_.empty()) return lines;
    lines.emplace_back(
        "process     destination            protocol        connections          sent      received  "
        "refused");
    for (const auto& [key, row] : rows_) {
        const auto& [process, destination, protocol] = key;
        char line[256];
        std::snprintf(line, sizeof(line), "%-10u  %-21s  %-14s  %11zu  %12llu  %12llu  %7zu",
                      static_cast<unsigned>(process), destination.c_str(), protocol.c_str(), row.connections,
                      static_cast<unsigned long long>(row.sent),
                      static_cast<unsigned long long>(row.received), row.refused);
        lines.emplace_back(line);
    }
    return lines;
}

std::vector<std::string> TrafficSummary::JsonLines() const {
    std::vector<std::string> lines;
    for (const auto& [key, row] : rows_) {
        const auto& [process, destination, protocol] = key;
        const nlohmann::ordered_json summary = {
            {"process_id", process},          {"destination", destination}, {"protocol_name", protocol},
            {"connections", row.connections}, {"bytes_sent", row.sent},     {"bytes_received", row.received},
            {"refused", row.refused},
        };
        lines.push_back(nlohmann::ordered_json{{"summary", summary}}.dump());
    }
    return lines;
}
