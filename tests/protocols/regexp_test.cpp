// The pattern language, its errors, and the ways of handing data to the matcher.
#include "protocols/regexp.h"

#include <gtest/gtest.h>

#include <cctype>
#include <string>

namespace {

using namespace std::string_literals;

constexpr unsigned kBoth = kRegFirstMatch | kRegIcase;

/// The result of running a pattern over data in one chunk; the error when it doesn't compile.
int Match(const std::string& pattern, const std::string& data, unsigned flags) {
    Regexp regexp;
    RegMatcher matcher;
    const int error = RegexpCompile(regexp, pattern.c_str());
    if (error != 0) return error;
    EXPECT_EQ(0, RegMatcherInit(matcher, regexp.stateCount));
    const DataChunk chunk{static_cast<std::int32_t>(data.size()), data.data()};
    return RegexpMatch(matcher, regexp, &chunk, 1, flags);
}

int Compile(const std::string& pattern) {
    Regexp regexp;
    return RegexpCompile(regexp, pattern.c_str());
}

TEST(Regexp, MatchesWhatThePatternSays) {
    const std::string methods = R"([\r\n]*(GET|POST|CONNECT))";
    const struct {
        std::string pattern, data;
        unsigned flags;
        int wanted;
    } kCases[] = {
        {methods, "GET /", kRegFirstMatch, 2},
        {methods, "GE", kRegFirstMatch, 1},
        {methods, "GXT", kRegFirstMatch, 0},
        {methods, "\r\nGET", kRegFirstMatch, 2},
        {R"((\+ok |-err ))", "+OK ready", kBoth, 2},
        {R"((\+ok |-err ))", "+OK ready", kRegFirstMatch, 0},
        {R"((\xe3|\xC5)....\x01)", "\xc5\0\r\n\xff\x01"s, kBoth, 2},
        // An empty prefix doesn't count once a byte has been consumed; no bytes at all may match.
        {"a*", "b", kRegFirstMatch, 0},
        {"a*", "", kRegFirstMatch, 2},
        {"a*", "aab", 0, 0},
        // Empty alternatives, wherever they stand.
        {"(|a)b", "b", 0, 2},
        {"()*x", "x", 0, 2},
        // A loop stays inside its piece.
        {"(a+b)?", "a", 0, 1},
        {"(a*b|c)", "ac", 0, 0},
        {"((a*)*)*b", "aaab", 0, 2},
        // A state that leads nowhere still leaves the data undecided.
        {"a[]", "a", kRegFirstMatch, 1},
        {"a[]", "ab", kRegFirstMatch, 0},
        // No special meaning outside classes.
        {"^${}-", "^${}-", 0, 2},
        // Classes.
        {"[^]", "\0"s, 0, 2},
        {"[a-]", "-", 0, 0},
        {"[a-]", "a", 0, 2},
        {"[+--]+", "+,-", 0, 2},
        {"[a-[:digit:]]+", "a5", 0, 2},
        {"[a-[:digit:]]", "-", 0, 0},
        {R"([\]\[\-\^]+)", "][-^", 0, 2},
        {R"([\x00-\x1f])", "\0"s, 0, 2},
        // Case: letters only, in classes too, and a negated class accepts a letter whose other case it
        // accepts.
        {"@", "`", kRegIcase, 0},
        {"[[]"s.replace(1, 1, "\\["), "{", kRegIcase, 0},
        {"[^a]", "a", kRegIcase, 2},
    };
    for (const auto& test : kCases) {
        EXPECT_EQ(test.wanted, Match(test.pattern, test.data, test.flags))
            << test.pattern << " on " << test.data << " with " << test.flags;
    }
}

TEST(Regexp, RejectsBadSyntaxWithItsOwnCode) {
    std::string classes;
    for (int i = 0; i < 16; ++i)
        classes += "[a]";
    EXPECT_EQ(2, Match(classes, std::string(16, 'a'), 0));
    const struct {
        std::string pattern;
        int wanted;
    } kCases[] = {
        {"a**", -22},
        {"a+?", -22},
        {"*a", -22},
        {"(+a)", -22},
        {"a|?", -22},
        {"(a", -22},
        {"a)", -22},
        {"a]", -22},
        {"[]a]", -22},
        {"[b-a]", -22},
        {"[-]", -22},
        {"[^-]", -22},
        {"[a-c-]", -22},
        {"[[:digit:]-]", -22},
        {"[-a]", -22},
        {"[a", -22},
        {"[a-", -22},
        {"[[:alpha:]", -22},
        {"[[:word:]]", -22},
        {"[a[b]", -22},
        {"[a-[b]", -22},
        {"[[:digit:]-x]", -22},
        {"[a[:digit:]-x]", -22},
        {"(a))", -22},
        {")\\", -22},
        {classes + "[a]", -12},
        {classes + "[", -12},
    };
    for (const auto& test : kCases)
        EXPECT_EQ(test.wanted, Compile(test.pattern)) << test.pattern;
    Regexp regexp;
    EXPECT_EQ(-22, RegexpCompile(regexp, nullptr));
}

TEST(Regexp, ReadsEscapesAndReportsThoseCutShort) {
    const std::string escapes = R"(\0\a\b\t\n\v\f\r\\\x7f\XfF\q\*)";
    EXPECT_EQ(2, Match(escapes, "\0\a\b\t\n\v\f\r\\\x7f\xffq*"s, 0));
    const struct {
        const char* pattern;
        const char* message;
    } kCases[] = {
        {"a\\", "Invalid escape\n"},
        {"[a\\", "Invalid escape\n"},
        {"\\xG1", "Invalid escape code 'G1'\n"},
        {"[\\X1G]", "Invalid escape code '1G'\n"},
        {"\\x4", "Invalid escape code '4?'\n"},
        {"\\x",
         "Invalid escape code '?"
         "?'\n"},
    };
    for (const auto& test : kCases) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(-1, Compile(test.pattern)) << test.pattern;
        EXPECT_EQ(test.message, testing::internal::GetCapturedStderr()) << test.pattern;
    }
}

TEST(Regexp, NamedClassesAreThoseOfTheClassicLocale) {
    const struct {
        const char* name;
        int (*has)(int);
    } kClasses[] = {
        {"alnum", std::isalnum}, {"alpha", std::isalpha}, {"cntrl", std::iscntrl},   {"digit", std::isdigit},
        {"graph", std::isgraph}, {"lower", std::islower}, {"print", std::isprint},   {"punct", std::ispunct},
        {"space", std::isspace}, {"upper", std::isupper}, {"xdigit", std::isxdigit},
    };
    for (const auto& named : kClasses) {
        const std::string text = "[:"s + named.name + ":]";
        for (int byte = 0; byte < 256; ++byte) {
            const std::string data(1, static_cast<char>(byte));
            const bool member = named.has(byte) != 0;
            ASSERT_EQ(member ? 2 : 0, Match("[" + text + "]", data, 0)) << text << byte;
            ASSERT_EQ(member ? 0 : 2, Match("[^" + text + "]", data, 0)) << text << byte;
        }
    }
}

TEST(Regexp, DeepAndLongPatternsCompileOrFailCleanly) {
    for (const int depth : {10000, 500000}) {
        const std::string open(depth, '('), close(depth, ')');
        EXPECT_EQ(2, Match(open + "a" + close, "a", kRegFirstMatch));
        EXPECT_EQ(-22, Compile(open + "a" + close.substr(1)));
        EXPECT_EQ(-22, Compile(open + "a" + close + ")"));
    }
    std::string repeated;
    while (repeated.size() < 1024 * 1024)
        repeated += "(a|b*)+";
    EXPECT_EQ(2, Match(repeated, "ab", 0));
    EXPECT_EQ(-12, Compile(std::string(16 * 1024 * 1024 + 1, 'a')));
}

TEST(Regexp, ChecksItsArguments) {
    RegMatcher matcher;
    EXPECT_EQ(-22, RegMatcherInit(matcher, -1));
    ASSERT_EQ(0, RegMatcherInit(matcher, 8));
    Regexp small, large;
    ASSERT_EQ(0, RegexpCompile(small, "abc"));
    ASSERT_EQ(0, RegexpCompile(large, "abcdefghi"));
    const DataChunk chunks[] = {{2, "ab"}, {0, nullptr}, {1, "c"}, {-1, "d"}};
    EXPECT_EQ(1, RegexpMatch(matcher, small, chunks, 2, 0));
    EXPECT_EQ(2, RegexpMatch(matcher, small, chunks, 3, 0));
    EXPECT_EQ(1, RegexpMatch(matcher, small, chunks, 0, 0));
    // Chunks are looked at in turn: a bad one matters only when the run gets there.
    EXPECT_EQ(2, RegexpMatch(matcher, small, chunks, 4, kRegFirstMatch));
    EXPECT_EQ(-22, RegexpMatch(matcher, small, chunks, 4, 0));
    EXPECT_EQ(2, RegexpMatch(matcher, small, chunks, 3, 0)) << "after a run that ended early";
    EXPECT_EQ(-22, RegexpMatch(matcher, small, chunks, -1, 0));
    EXPECT_EQ(-22, RegexpMatch(matcher, small, nullptr, 0, 0));
    EXPECT_EQ(-12, RegexpMatch(matcher, large, chunks, 1, 0));
    RegexpFree(small);
    RegexpFree(small);
    EXPECT_EQ(-22, RegexpMatch(matcher, small, chunks, 1, 0));
    EXPECT_EQ(-22, RegexpCompile(large, "*"));
    EXPECT_EQ(-22, RegexpMatch(matcher, large, chunks, 1, 0)) << "a failed compilation leaves nothing";
}

}  // namespace
