// What a rule wants done with the bytes of a split connection. Made with the rule and never changed, so that
// a connection keeps the plan that it began with when the rules are read again.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "analyzer/stream_search.h"

/// The two ends of a split connection: the application, and the server that it asked for.
enum class Side { kClient, kServer };

constexpr Side OtherSide(Side side) {
    return side == Side::kClient ? Side::kServer : Side::kClient;
}

enum class ContentAction {
    kReplace,
    kRefuse,  ///< both sides are cut
    kCutClient,
    kCutServer,
};

/// Longest text that takes a match's place: what an answer may grow by is bounded.
constexpr std::size_t kMostReplacementBytes = 256;

/// What is looked for in the bytes that come from one side, and what happens where it is found.
struct ContentRule {
    Side from = Side::kServer;
    std::shared_ptr<const SearchPattern> pattern;
    /// Only so many bytes from the beginning are looked at.
    std::uint64_t firstBytes = UINT64_MAX;
    ContentAction then = ContentAction::kRefuse;
    std::string with;
};

/// What the analyzer answers in the server's place.
struct Page {
    std::uint32_t status = 200;
    std::string type = "text/html; charset=utf-8";
    std::string body;
};

struct InspectionPlan {
    /// Everything that the analyzer sends back is held so long.
    std::uint32_t holdMilliseconds = 0;
    std::vector<ContentRule> contents;
    std::optional<Page> page;
};
