// What content rules let through, one behind the other and over the borders of pieces.
#include "analyzer/content_filter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

ContentRule Replace(const std::string& pattern, const std::string& with,
                    std::uint64_t firstBytes = UINT64_MAX) {
    ContentRule rule;
    rule.pattern = std::make_shared<const SearchPattern>(pattern, false);
    rule.then = ContentAction::kReplace;
    rule.with = with;
    rule.firstBytes = firstBytes;
    return rule;
}

ContentRule End(const std::string& pattern, ContentAction then = ContentAction::kRefuse) {
    ContentRule rule = Replace(pattern, "");
    rule.then = then;
    return rule;
}

struct Outcome {
    std::string passed;
    std::optional<ContentAction> ends;
    std::uint64_t replaced = 0;
};

Outcome PassAll(const std::vector<ContentRule>& rules, const std::string& text, std::size_t piece) {
    InspectionPlan plan;
    plan.contents = rules;
    ContentFilter filter(plan, Side::kServer);
    std::vector<unsigned char> out;
    Outcome outcome;
    const auto* const bytes = reinterpret_cast<const unsigned char*>(text.data());
    for (std::size_t at = 0; at < text.size() && !outcome.ends; at += piece)
        outcome.ends = filter.Pass(bytes + at, std::min(piece, text.size() - at), out);
    if (!outcome.ends) {
        outcome.ends = filter.LetGo(out);
        EXPECT_FALSE(filter.Keeps());
    }
    outcome.passed.assign(out.begin(), out.end());
    outcome.replaced = filter.Replaced();
    return outcome;
}

TEST(ContentFilter, WhatGoesOnDependsOnNoBorder) {
    const struct {
        const char* what;
        std::vector<ContentRule> rules;
        std::string text;
        std::string passed;
        std::uint64_t replaced;
        std::optional<ContentAction> ends;
    } cases[] = {
        {"replaced", {Replace("colou?r", "paint")}, "color, colour, colo", "paint, paint, colo", 2, {}},
        {"removed", {Replace("X", "")}, "XXaXX", "a", 4, {}},
        {"longest never", {Replace("ab*", "-")}, "abb", "-bb", 1, {}},
        {"beginning in a beginning", {Replace("aab", "-")}, "aaab", "a-", 1, {}},
        {"one makes the other's", {Replace("1", "2"), Replace("22", "3")}, "1212", "33", 4, {}},
        {"not the first's own", {Replace("a", "aa")}, "aa", "aaaa", 2, {}},
        {"first bytes", {Replace("a", "b", 3)}, "aaaaa", "bbbaa", 3, {}},
        {"match over the limit", {Replace("aa", "b", 3)}, "aaaa", "baa", 1, {}},
        {"refused", {End("virus")}, "a virus here", "a ", 0, ContentAction::kRefuse},
        {"not refused", {End("virus")}, "a viru", "a viru", 0, {}},
        {"cut", {End("b", ContentAction::kCutClient)}, "abc", "a", 0, ContentAction::kCutClient},
        {"the earlier place counts",
         {End("zz"), End("y", ContentAction::kCutServer)},
         "xyzz",
         "x",
         0,
         ContentAction::kCutServer},
        {"what a later rule keeps goes before the end",
         {End("end"), Replace("abX", "-")},
         "abend",
         "ab",
         0,
         ContentAction::kRefuse},
        {"end in what is let go", {Replace("aX", "-"), End("a")}, "ba", "b", 0, ContentAction::kRefuse},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.what);
        for (const std::size_t piece : {1, 2, 3, 1000}) {
            const Outcome outcome = PassAll(row.rules, row.text, piece);
            EXPECT_EQ(outcome.passed, row.passed) << "pieces of " << piece;
            EXPECT_EQ(outcome.ends, row.ends) << "pieces of " << piece;
            EXPECT_EQ(outcome.replaced, row.replaced) << "pieces of " << piece;
        }
    }
}

TEST(ContentFilter, WhatIsLetGoIsStillLookedAt) {
    InspectionPlan plan;
    plan.contents = {End("virus"), Replace("rus", "-")};
    for (const bool refuses : {true, false}) {
        if (!refuses) plan.contents.erase(plan.contents.begin());
        ContentFilter filter(plan, Side::kServer);
        std::vector<unsigned char> out;
        const auto pass = [&](const std::string& text) {
            return filter.Pass(reinterpret_cast<const unsigned char*>(text.data()), text.size(), out);
        };
        EXPECT_FALSE(pass("a viru"));
        EXPECT_FALSE(filter.LetGo(out));
        EXPECT_EQ(std::string(out.begin(), out.end()), "a viru");
        EXPECT_EQ(pass("s!").has_value(), refuses);
        EXPECT_EQ(std::string(out.begin(), out.end()), refuses ? "a viru" : "a virus!")
            << "half a match is not replaced";
    }
}

}  // namespace
