// See rules.h.
#include "analyzer/rules.h"

#include <algorithm>

#include "messages/analyzer_messages.h"

namespace {

bool AnyFits(const std::vector<std::string>& patterns, const std::string& text) {
    return patterns.empty() || std::any_of(patterns.begin(), patterns.end(), [&](const std::string& pattern) {
               return FitsPattern(text, pattern);
           });
}

/// A decimal number of at most `limit` that takes up the whole of [begin, end). Without zeros in front: some
/// read 010 as eight.
bool ParseNumber(const std::string& text, std::size_t begin, std::size_t end, std::uint32_t limit,
                 std::uint32_t& value) {
    if (begin >= end || end - begin > 5 || (text[begin] == '0' && end - begin > 1)) return false;
    value = 0;
    for (std::size_t index = begin; index < end; ++index) {
        if (text[index] < '0' || text[index] > '9') return false;
        value = value * 10 + static_cast<std::uint32_t>(text[index] - '0');
    }
    return value <= limit;
}

/// Behind the UTF-8 character that begins at `at`.
std::size_t EndOfCharacter(const std::string& text, std::size_t at) {
    do {
        ++at;
    } while (at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80);
    return at;
}

}  // namespace

bool FitsPattern(const std::string& text, const std::string& pattern) {
    std::size_t at = 0;
    std::size_t fit = 0;
    std::size_t star = std::string::npos;
    std::size_t resume = 0;
    while (at < text.size()) {
        if (fit < pattern.size() && pattern[fit] == '*') {
            star = fit++;
            resume = at;
        } else if (fit < pattern.size() && pattern[fit] == '?') {
            ++fit;
            at = EndOfCharacter(text, at);
        } else if (fit < pattern.size() && pattern[fit] == text[at]) {
            ++fit;
            ++at;
        } else if (star != std::string::npos) {
            // Let the last star take one character more.
            fit = star + 1;
            at = ++resume;
        } else {
            return false;
        }
    }
    while (fit < pattern.size() && pattern[fit] == '*')
        ++fit;
    return fit == pattern.size();
}

bool ParseAddress(const std::string& text, std::uint32_t& address) {
    address = 0;
    std::size_t begin = 0;
    for (int octet = 0; octet < 4; ++octet) {
        const std::size_t dot = text.find('.', begin);
        if ((dot == std::string::npos) != (octet == 3)) return false;
        const std::size_t end = octet == 3 ? text.size() : dot;
        std::uint32_t value = 0;
        if (!ParseNumber(text, begin, end, 255, value)) return false;
        address = (address << 8) | value;
        begin = end + 1;
    }
    return true;
}

bool ParseEndpoint(const std::string& text, Endpoint& endpoint) {
    const std::size_t colon = text.find(':');
    std::uint32_t port = 0;
    if (colon == std::string::npos || !ParseAddress(text.substr(0, colon), endpoint.address) ||
        !ParseNumber(text, colon + 1, text.size(), 65535, port) || port == 0) {
        return false;
    }
    endpoint.port = static_cast<std::uint16_t>(port);
    return true;
}

bool Rule::Matches(const Request& request) const {
    const auto inNetwork = [&](const Network& network) {
        return (request.destination.address & network.mask) == network.address;
    };
    const auto inRange = [&](const PortRange& range) {
        return request.destination.port >= range.first && request.destination.port <= range.last;
    };
    if (operations != 0 && (request.operation >= 32 || (operations & (1u << request.operation)) == 0))
        return false;
    if (!destinations.empty() && std::none_of(destinations.begin(), destinations.end(), inNetwork))
        return false;
    if (!ports.empty() && std::none_of(ports.begin(), ports.end(), inRange)) return false;
    if (!processIds.empty() &&
        std::find(processIds.begin(), processIds.end(), request.processId) == processIds.end()) {
        return false;
    }
    if (!protocols.empty() &&
        std::find(protocols.begin(), protocols.end(), request.protocol) == protocols.end()) {
        return false;
    }
    return AnyFits(users, request.user) && AnyFits(windows, request.window) &&
           AnyFits(signers, request.signer);
}

RuleSet::RuleSet() {
    default_.name = "default";
}

const Rule& RuleSet::Decide(const Request& request) const {
    for (const Rule& rule : rules_) {
        if (rule.Matches(request)) return rule;
    }
    return default_;
}
