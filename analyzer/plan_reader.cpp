// See plan_reader.h.
#include "analyzer/plan_reader.h"

#include <filesystem>
#include <stdexcept>

#include "analyzer/regular_file.h"
#include "messages/analyzer_messages.h"

namespace {

constexpr std::int64_t kMostHoldMilliseconds = 600000;
constexpr std::size_t kMostContents = 16;
/// Every connection that is served has a copy of the page for as long as its client takes it.
constexpr std::size_t kMostPageBytes = 1024u * 1024;
constexpr std::int64_t kMostFirstBytes = INT64_MAX;

/// What would end the line that it stands in.
bool HasLineEnd(const std::string& text) {
    return text.find_first_of("\r\n") != std::string::npos;
}

}  // namespace

const toml::node* FirstOfPlan(const toml::table& rule) {
    for (const char* key : {"hold_ms", "content", "serve"}) {
        if (const toml::node* node = rule.get(key)) return node;
    }
    return nullptr;
}

std::shared_ptr<const InspectionPlan> PlanReader::Read(const toml::table& rule, std::uint32_t& flags) {
    const toml::node* page = rule.get("serve");
    if (FirstOfPlan(rule) == nullptr) return nullptr;
    auto plan = std::make_shared<InspectionPlan>();
    if (const toml::node* node = rule.get("hold_ms"))
        plan->holdMilliseconds = static_cast<std::uint32_t>(Number(*node, 0, kMostHoldMilliseconds));
    if (const toml::node* node = rule.get("content")) {
        const toml::array* list = node->as_array();
        if (list == nullptr || list->empty())
            Fail(node->source(), "what is looked for is written as [[rule.content]]");
        if (list->size() > kMostContents)
            Fail(node->source(), "a rule has " + std::to_string(kMostContents) + " contents at most");
        if (page != nullptr) Fail(node->source(), "what is served has no content to look at");
        for (const toml::node& entry : *list)
            plan->contents.push_back(ReadContent(Table(entry, "content")));
    }
    if (page != nullptr) plan->page = ReadPage(Table(*page, "serve"));
    flags |= page != nullptr ? kFlagAnalyzerServes : kFlagInspectData;
    return plan;
}

ContentRule PlanReader::ReadContent(const toml::table& table) {
    CheckKeys(table, {"from", "pattern", "ignore_case", "first_bytes", "then", "with"});
    for (const char* key : {"from", "pattern", "then"}) {
        if (table.get(key) == nullptr)
            Fail(table.source(), "a content needs \"from\", \"pattern\" and \"then\"");
    }
    ContentRule rule;
    rule.from =
        OneOf<Side>(*table.get("from"), "side", {{"client", Side::kClient}, {"server", Side::kServer}});
    rule.then = OneOf<ContentAction>(*table.get("then"), "outcome",
                                     {{"replace", ContentAction::kReplace},
                                      {"refuse", ContentAction::kRefuse},
                                      {"cut-client", ContentAction::kCutClient},
                                      {"cut-server", ContentAction::kCutServer}});
    if (const toml::node* node = table.get("first_bytes"))
        rule.firstBytes = static_cast<std::uint64_t>(Number(*node, 1, kMostFirstBytes));
    const toml::node* with = table.get("with");
    const bool replaces = rule.then == ContentAction::kReplace;
    if (replaces && with == nullptr) Fail(table.get("then")->source(), "replace needs \"with\"");
    if (with != nullptr) {
        if (!replaces) Fail(with->source(), "only replace takes \"with\"");
        rule.with = Text(*with);
        if (rule.with.size() > kMostReplacementBytes) {
            Fail(with->source(), "it is longer than " + std::to_string(kMostReplacementBytes) + " bytes");
        }
    }
    const toml::node* ignoreCase = table.get("ignore_case");
    const toml::node* pattern = table.get("pattern");
    try {
        rule.pattern = std::make_shared<const SearchPattern>(Text(*pattern),
                                                             ignoreCase != nullptr && Boolean(*ignoreCase));
    } catch (const std::invalid_argument& error) {
        Fail(pattern->source(), error.what());
    }
    return rule;
}

Page PlanReader::ReadPage(const toml::table& table) {
    CheckKeys(table, {"status", "type", "body", "file"});
    Page page;
    if (const toml::node* node = table.get("status"))
        page.status = static_cast<std::uint32_t>(Number(*node, 200, 599));
    if (const toml::node* node = table.get("type")) {
        page.type = Text(*node);
        if (page.type.empty() || HasLineEnd(page.type)) Fail(node->source(), "it is no content type");
    }
    page.body = ReadBody(table);
    return page;
}

std::string PlanReader::ReadBody(const toml::table& table) {
    const toml::node* body = table.get("body");
    const toml::node* file = table.get("file");
    if ((body == nullptr) == (file == nullptr))
        Fail(table.source(), "a page has either \"body\" or \"file\"");
    const toml::node& node = body != nullptr ? *body : *file;
    std::string text = Text(node);
    if (file != nullptr) {
        // Beside the rules, wherever the analyzer was started.
        const std::filesystem::path folder = std::filesystem::path(File()).parent_path();
        try {
            text = ReadRegularFile((folder / text).string());
        } catch (const FileError& error) {
            Fail(node.source(), error.what());
        }
    }
    if (text.size() > kMostPageBytes)
        Fail(node.source(), "the page is larger than " + std::to_string(kMostPageBytes) + " bytes");
    return text;
}
