// Reads the rule file. Whatever it doesn't understand is an error with its place: a rule that silently did
// nothing would let through what it was written to stop.
#include <toml++/toml.h>

#include <algorithm>
#include <functional>
#include <initializer_list>
#include <string_view>

#include "analyzer/regular_file.h"
#include "analyzer/rules.h"
#include "messages/analyzer_messages.h"

namespace {

[[noreturn]] void Fail(const std::string& file, const toml::source_region& where, const std::string& reason) {
    throw RuleError(file + ":" + std::to_string(where.begin.line) + ":" + std::to_string(where.begin.column) +
                    ": " + reason);
}

struct NamedFlag {
    const char* name;
    std::uint32_t bit;
};

constexpr NamedFlag kFlags[] = {
    {"count", kFlagCountTraffic}, {"report", kFlagReportTraffic}, {"inspect", kFlagInspectData},
    {"relay", kFlagRelayWanted},  {"keep", kFlagKeepFlags},       {"serve", kFlagAnalyzerServes},
};

/// Not of a network that hosts are never in: 0/8, multicast and what is beyond.
bool IsOfAHost(std::uint32_t address) {
    const std::uint32_t first = address >> 24;
    return first != 0 && first < 224;
}

}  // namespace

/// One reading of one file.
class RuleReader {
  public:
    explicit RuleReader(const std::string& file) : file_(file) {}

    RuleSet Read(const toml::table& root) {
        CheckKeys(root, {"default", "rule"});
        RuleSet rules;
        if (const toml::node* node = root.get("default")) {
            const toml::table& table = Table(*node, "default");
            CheckKeys(table, {"action", "address", "flags", "exempt", "behaviour", "delay_ms"});
            rules.default_.verdict = ReadVerdict(table);
        }
        if (const toml::node* node = root.get("rule")) {
            const toml::array* list = node->as_array();
            if (list == nullptr) Fail(file_, node->source(), "rules are written as [[rule]]");
            for (const toml::node& entry : *list) {
                rules.rules_.push_back(ReadRule(Table(entry, "rule"), rules.rules_.size() + 1));
            }
        }
        // Cut off, or not written yet: nobody writes a file in order to say nothing.
        if (rules.rules_.empty() && root.get("default") == nullptr)
            throw RuleError(file_ + ": there is neither a rule nor [default]");
        return rules;
    }

  private:
    Rule ReadRule(const toml::table& table, std::size_t number) {
        CheckKeys(table, {"name", "operation", "destination", "port", "process_id", "user", "window",
                          "signer", "action", "address", "flags", "exempt", "behaviour", "delay_ms"});
        Rule rule;
        const toml::node* name = table.get("name");
        rule.name = name != nullptr ? Text(*name) : "rule " + std::to_string(number);
        ForEach(table, "operation",
                [&](const toml::node& node) { rule.operations |= 1u << ReadOperation(node); });
        ForEach(table, "destination",
                [&](const toml::node& node) { rule.destinations.push_back(ReadNetwork(node)); });
        ForEach(table, "port", [&](const toml::node& node) { rule.ports.push_back(ReadPorts(node)); });
        ForEach(table, "process_id", [&](const toml::node& node) {
            rule.processIds.push_back(static_cast<std::uint32_t>(Number(node, 1, 0xFFFFFFFF)));
        });
        ForEach(table, "user", [&](const toml::node& node) { rule.users.push_back(Text(node)); });
        ForEach(table, "window", [&](const toml::node& node) { rule.windows.push_back(Text(node)); });
        ForEach(table, "signer", [&](const toml::node& node) { rule.signers.push_back(Text(node)); });
        rule.verdict = ReadVerdict(table);
        return rule;
    }

    Verdict ReadVerdict(const toml::table& table) {
        Verdict verdict;
        if (const toml::node* node = table.get("action")) {
            verdict.action = OneOf<RuleAction>(*node, "action",
                                               {{"allow", RuleAction::kAllow},
                                                {"refuse", RuleAction::kRefuse},
                                                {"redirect", RuleAction::kRedirect}});
        }
        const toml::node* address = table.get("address");
        const bool redirects = verdict.action == RuleAction::kRedirect;
        if (redirects && address == nullptr) {
            Fail(file_, table.get("action")->source(), "redirect needs an address");
        }
        if (address != nullptr) {
            if (!redirects) Fail(file_, address->source(), "only redirect takes an address");
            if (!ParseEndpoint(Text(*address), verdict.redirect)) {
                Fail(file_, address->source(), "expected an address and port such as \"127.0.0.1:8080\"");
            }
        }
        if (redirects && !IsOfAHost(verdict.redirect.address)) {
            Fail(file_, address->source(), "no host has this address");
        }
        const toml::node* flags = table.get("flags");
        if (flags != nullptr && verdict.action == RuleAction::kRefuse) {
            Fail(file_, flags->source(), "what is refused takes no flags");
        }
        ForEach(table, "flags", [&](const toml::node& node) { verdict.flags |= ReadFlag(node); });
        if (const toml::node* node = table.get("exempt")) verdict.exempt = Boolean(*node);
        if (const toml::node* node = table.get("behaviour")) {
            verdict.behaviour = OneOf<Behaviour>(*node, "behaviour",
                                                 {{"answer", Behaviour::kAnswer},
                                                  {"silent", Behaviour::kSilent},
                                                  {"garbage", Behaviour::kGarbage},
                                                  {"close", Behaviour::kClose}});
        }
        if (const toml::node* node = table.get("delay_ms")) {
            verdict.delayMilliseconds = static_cast<std::uint32_t>(Number(*node, 0, 600000));
        }
        return verdict;
    }

    std::uint32_t ReadOperation(const toml::node& node) {
        const std::uint32_t code = OperationByName(Text(node));
        if (code == 0) Fail(file_, node.source(), "there is no operation \"" + Text(node) + "\"");
        return code;
    }

    std::uint32_t ReadFlag(const toml::node& node) {
        for (const NamedFlag& flag : kFlags) {
            if (Text(node) == flag.name) return flag.bit;
        }
        Fail(file_, node.source(), "there is no flag \"" + Text(node) + "\"");
    }

    /// "203.0.113.0/24", or an address alone.
    Network ReadNetwork(const toml::node& node) {
        const std::string text = Text(node);
        const std::size_t slash = text.find('/');
        Network network;
        std::uint32_t bits = 32;
        bool good = ParseAddress(text.substr(0, slash), network.address);
        if (slash != std::string::npos) {
            const std::string digits = text.substr(slash + 1);
            good = good && !digits.empty() && digits.size() <= 2 && (digits == "0" || digits[0] != '0') &&
                   std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; });
            bits = good ? static_cast<std::uint32_t>(std::stoul(digits)) : 33;
        }
        if (!good || bits > 32) {
            Fail(file_, node.source(), "expected an address or network such as \"203.0.113.0/24\"");
        }
        network.mask = bits == 0 ? 0 : 0xFFFFFFFF << (32 - bits);
        if ((network.address & ~network.mask) != 0) {
            Fail(file_, node.source(), "the address has bits beyond its network's length");
        }
        return network;
    }

    /// 80, "80" or "8000-8999".
    PortRange ReadPorts(const toml::node& node) {
        if (node.is_integer()) {
            const auto port = static_cast<std::uint16_t>(Number(node, 0, 65535));
            return {port, port};
        }
        const std::string text = Text(node);
        const std::size_t dash = text.find('-');
        Endpoint first;
        Endpoint last;
        const std::string from = text.substr(0, dash);
        const std::string to = dash == std::string::npos ? from : text.substr(dash + 1);
        if (!ParseEndpoint("0.0.0.0:" + from, first) || !ParseEndpoint("0.0.0.0:" + to, last) ||
            first.port > last.port) {
            Fail(file_, node.source(), "expected a port such as 80 or a range such as \"8000-8999\"");
        }
        return {first.port, last.port};
    }

    const toml::table& Table(const toml::node& node, const char* name) {
        const toml::table* table = node.as_table();
        if (table == nullptr) Fail(file_, node.source(), std::string("\"") + name + "\" is to be a table");
        return *table;
    }

    std::string Text(const toml::node& node) {
        const toml::value<std::string>* text = node.as_string();
        if (text == nullptr) Fail(file_, node.source(), "expected a text");
        return text->get();
    }

    bool Boolean(const toml::node& node) {
        const toml::value<bool>* value = node.as_boolean();
        if (value == nullptr) Fail(file_, node.source(), "expected true or false");
        return value->get();
    }

    std::int64_t Number(const toml::node& node, std::int64_t least, std::int64_t most) {
        const toml::value<std::int64_t>* value = node.as_integer();
        if (value == nullptr || value->get() < least || value->get() > most) {
            Fail(file_, node.source(),
                 "expected a number from " + std::to_string(least) + " to " + std::to_string(most));
        }
        return value->get();
    }

    template <typename Value>
    Value OneOf(const toml::node& node, const char* what,
                std::initializer_list<std::pair<const char*, Value>> choices) {
        const std::string text = Text(node);
        std::string known;
        for (const auto& [name, value] : choices) {
            if (text == name) return value;
            known += (known.empty() ? "" : ", ") + std::string(name);
        }
        Fail(file_, node.source(), "there is no " + std::string(what) + " \"" + text + "\" (" + known + ")");
    }

    /// The value of `key`, or each element when it is a list. An empty list would match everything: refused.
    void ForEach(const toml::table& table, const char* key,
                 const std::function<void(const toml::node&)>& read) {
        const toml::node* node = table.get(key);
        if (node == nullptr) return;
        const toml::array* list = node->as_array();
        if (list == nullptr) return read(*node);
        if (list->empty()) Fail(file_, node->source(), "the list is empty");
        for (const toml::node& element : *list)
            read(element);
    }

    void CheckKeys(const toml::table& table, std::initializer_list<std::string_view> known) {
        for (const auto& [key, value] : table) {
            if (std::find(known.begin(), known.end(), key.str()) != known.end()) continue;
            Fail(file_, key.source(), "there is no key \"" + std::string(key.str()) + "\" here");
        }
    }

    const std::string& file_;
};

RuleSet RuleSet::FromText(const std::string& text, const std::string& name) {
    try {
        return RuleReader(name).Read(toml::parse(text, name));
    } catch (const toml::parse_error& error) {
        Fail(name, error.source(), std::string(error.description()));
    }
}

RuleSet RuleSet::FromFile(const std::string& path) {
    std::string text;
    try {
        text = ReadRegularFile(path);
    } catch (const FileError& error) {
        throw RuleError(error.what());
    }
    return FromText(text, path);
}
