// What the origin servers were asked and how far their answers got, read back from the JSON lines of their
// log.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

/// One answer of an origin server.
struct Visit {
    std::string server;
    std::string request;  ///< the request line
    std::uint64_t bytes = 0;
    std::string checksum;    ///< of the body, as far as it was made
    bool complete = false;   ///< all of it was taken
    std::uint64_t sent = 0;  ///< with the head before the body
};

/// Nothing for a line that is no answer.
std::optional<Visit> ParseVisit(const std::string& line);
