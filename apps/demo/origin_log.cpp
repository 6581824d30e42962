// Reading of the origin servers' log; see the header.
#include "apps/demo/origin_log.h"

#include <nlohmann/json.hpp>

std::optional<Visit> ParseVisit(const std::string& line) {
    const nlohmann::json json = nlohmann::json::parse(line, nullptr, false);
    if (!json.is_object() || !json.contains("request")) return std::nullopt;
    Visit visit;
    visit.server = json.value("server", "");
    visit.request = json.value("request", "");
    visit.bytes = json.value("bytes", std::uint64_t(0));
    visit.sent = json.value("sent", std::uint64_t(0));
    visit.checksum = json.value("checksum", "");
    visit.complete = json.value("complete", false);
    return visit;
}
