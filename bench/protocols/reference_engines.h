// The same table on public pattern engines, to be measured beside ours: all patterns of a side at once on
// RE2::Set and Hyperscan, one after another on PCRE2 with its compiler. The validators are ours for all of
// them.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "protocols/protocol_table.h"

struct ReferenceEngine {
    std::string name;
    std::function<std::uint32_t(const ProtocolSample&)> classify;
};

/// Empty when the engines were not found at configuration; throws std::runtime_error when one refuses a
/// pattern.
std::vector<ReferenceEngine> MakeReferenceEngines();
