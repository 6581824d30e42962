// Reads the rule file. Whatever it doesn't understand is an error with its place: a rule that silently did
// nothing would let through what it was written to stop.
#include <algorithm>
#include <initializer_list>
#include <string_view>

#include "analyzer/plan_reader.h"
#include "analyzer/protocol_names.h"
#include "analyzer/regular_file.h"
#include "analyzer/rules.h"
#include "analyzer/table_reader.h"
#include "messages/analyzer_messages.h"

namespace {

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
class RuleReader : private TableReader {
  public:
    explicit RuleReader(const std::string& file) : TableReader(file) {}

    RuleSet Read(const toml::table& root) {
        CheckKeys(root, {"default", "rule"});
        RuleSet rules;
        if (const toml::node* node = root.get("default")) {
            const toml::table& table = Table(*node, "default");
            CheckKeys(table, {"action", "address", "flags", "exempt", "behaviour", "delay_ms", "hold_ms",
                              "content", "serve"});
            rules.default_.verdict = ReadVerdict(table);
        }
        if (const toml::node* node = root.get("rule")) {
            const toml::array* list = node->as_array();
            if (list == nullptr) Fail(node->source(), "rules are written as [[rule]]");
            for (const toml::node& entry : *list) {
                rules.rules_.push_back(ReadRule(Table(entry, "rule"), rules.rules_.size() + 1));
            }
        }
        // Cut off, or not written yet: nobody writes a file in order to say nothing.
        if (rules.rules_.empty() && root.get("default") == nullptr)
            throw RuleError(File() + ": there is neither a rule nor [default]");
        return rules;
    }

  private:
    Rule ReadRule(const toml::table& table, std::size_t number) {
        CheckKeys(table, {"name", "operation", "destination", "port", "process_id", "protocol", "user",
                          "window", "signer", "action", "address", "flags", "exempt", "behaviour", "delay_ms",
                          "hold_ms", "content", "serve"});
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
        ForEach(table, "protocol",
                [&](const toml::node& node) { rule.protocols.push_back(ReadProtocol(node)); });
        ForEach(table, "user", [&](const toml::node& node) { rule.users.push_back(Text(node)); });
        ForEach(table, "window", [&](const toml::node& node) { rule.windows.push_back(Text(node)); });
        ForEach(table, "signer", [&](const toml::node& node) { rule.signers.push_back(Text(node)); });
        rule.verdict = ReadVerdict(table);
        const toml::node* plan = FirstOfPlan(table);
        if (plan != nullptr && rule.operations != 0 && (rule.operations & (1u << OpConnect)) == 0)
            Fail(plan->source(), "this goes with a connect, which the rule doesn't decide about");
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
            Fail(table.get("action")->source(), "redirect needs an address");
        }
        if (address != nullptr) {
            if (!redirects) Fail(address->source(), "only redirect takes an address");
            if (!ParseEndpoint(Text(*address), verdict.redirect)) {
                Fail(address->source(), "expected an address and port such as \"127.0.0.1:8080\"");
            }
        }
        if (redirects && !IsOfAHost(verdict.redirect.address)) {
            Fail(address->source(), "no host has this address");
        }
        const toml::node* flags = table.get("flags");
        if (flags != nullptr && verdict.action == RuleAction::kRefuse) {
            Fail(flags->source(), "what is refused takes no flags");
        }
        ForEach(table, "flags", [&](const toml::node& node) { verdict.flags |= ReadFlag(node); });
        if ((verdict.flags & kFlagAnalyzerServes) != 0 && table.get("serve") == nullptr)
            Fail(flags->source(), "serve needs a page: [rule.serve]");
        const toml::node* plan = FirstOfPlan(table);
        if (plan != nullptr && verdict.action != RuleAction::kAllow)
            Fail(plan->source(), "only what is allowed is looked into or served");
        if (plan != nullptr && (verdict.flags & kFlagKeepFlags) != 0)
            Fail(flags->source(), "with keep nothing would be looked into or served");
        verdict.plan = PlanReader(File()).Read(table, verdict.flags);
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

    std::uint32_t ReadProtocol(const toml::node& node) {
        std::uint32_t protocol = 0;
        if (!ProtocolByName(Text(node), &protocol))
            Fail(node.source(), "there is no protocol \"" + Text(node) + "\"");
        return protocol;
    }

    std::uint32_t ReadOperation(const toml::node& node) {
        const std::uint32_t code = OperationByName(Text(node));
        if (IsRelayed(code)) Fail(node.source(), "a rule that decides about the connect decides about it");
        if (code == 0) Fail(node.source(), "there is no operation \"" + Text(node) + "\"");
        return code;
    }

    std::uint32_t ReadFlag(const toml::node& node) {
        for (const NamedFlag& flag : kFlags) {
            if (Text(node) == flag.name) return flag.bit;
        }
        Fail(node.source(), "there is no flag \"" + Text(node) + "\"");
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
            Fail(node.source(), "expected an address or network such as \"203.0.113.0/24\"");
        }
        network.mask = bits == 0 ? 0 : 0xFFFFFFFF << (32 - bits);
        if ((network.address & ~network.mask) != 0) {
            Fail(node.source(), "the address has bits beyond its network's length");
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
            Fail(node.source(), "expected a port such as 80 or a range such as \"8000-8999\"");
        }
        return {first.port, last.port};
    }
};

RuleSet RuleSet::FromText(const std::string& text, const std::string& name) {
    try {
        return RuleReader(name).Read(toml::parse(text, name));
    } catch (const toml::parse_error& error) {
        TableReader(name).Fail(error.source(), std::string(error.description()));
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
