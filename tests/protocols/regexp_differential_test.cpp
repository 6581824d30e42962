// Random patterns and data: the engine, in one chunk and in many, and the deterministic automaton, against
// the oracle.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "protocols/byte_automaton.h"
#include "protocols/regexp.h"
#include "tests/protocols/pattern_oracle.h"

namespace {

std::vector<DataChunk> Cut(SeededRandom& random, const std::string& data) {
    std::vector<DataChunk> chunks;
    for (std::size_t at = 0; at < data.size();) {
        const auto length = std::min<std::size_t>(random.Below(4), data.size() - at);
        chunks.push_back({static_cast<std::int32_t>(length), data.data() + at});
        at += length;
    }
    chunks.push_back({0, nullptr});
    return chunks;
}

std::string Printable(const std::string& bytes) {
    std::string text;
    char hex[5];
    for (const char c : bytes) {
        std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(c));
        text += c >= ' ' && c <= '~' ? std::string(1, c) : hex;
    }
    return text;
}

struct Totals {
    int results[3] = {};
    int automata = 0;
    int tails = 0;
};

/// One pattern, some data, all flags.
void Compare(SeededRandom& random, RegMatcher& matcher, Totals& totals) {
    const RandomPattern pattern = MakePattern(random);
    Regexp regexp;
    ASSERT_EQ(0, RegexpCompile(regexp, pattern.text.c_str())) << Printable(pattern.text);
    for (int i = 0; i < 32; ++i) {
        const unsigned flags = (i & 1 ? kRegFirstMatch : 0u) | (i & 2 ? kRegIcase : 0u);
        const std::string data = MakeData(random, pattern.root, (flags & kRegIcase) != 0);
        const int wanted =
            OracleMatch(pattern.root, data, (flags & kRegFirstMatch) != 0, (flags & kRegIcase) != 0);
        ++totals.results[wanted];
        const DataChunk whole{static_cast<std::int32_t>(data.size()), data.data()};
        const auto chunks = Cut(random, data);
        const std::string where = Printable(pattern.text) + " on " + Printable(data);
        ASSERT_EQ(wanted, RegexpMatch(matcher, regexp, &whole, 1, flags)) << where << " flags " << flags;
        ASSERT_EQ(wanted, RegexpMatch(matcher, regexp, chunks.data(), int(chunks.size()), flags))
            << where << " in chunks, flags " << flags;

        ByteAutomaton automaton;
        if ((flags & kRegFirstMatch) == 0 || !automaton.Build(regexp, flags)) continue;
        ++totals.automata;
        const auto* bytes = reinterpret_cast<const unsigned char*>(data.data());
        ASSERT_EQ(wanted, automaton.Run(bytes, data.size())) << where << " flags " << flags;
        if (automaton.HasTail()) {
            ++totals.tails;
            ASSERT_TRUE(wanted != kMatch || automaton.MayMatch(bytes, data.size())) << where;
        }
        if (data.empty()) continue;
        ASSERT_EQ(OracleMatch(pattern.root, data.substr(0, 1), true, (flags & kRegIcase) != 0) != 0,
                  automaton.CanBeginWith(bytes[0]))
            << where;
    }
}

TEST(RegexpDifferential, EngineAndAutomatonAgreeWithTheOracle) {
    SeededRandom random;
    SCOPED_TRACE("QX_SEED=" + std::to_string(random.Seed()));
    RegMatcher matcher;
    ASSERT_EQ(0, RegMatcherInit(matcher, 4096));
    Totals totals;
    for (int i = 0; i < 7000 && !HasFatalFailure(); ++i)
        Compare(random, matcher, totals);
    std::printf("results 0: %d, 1: %d, 2: %d; automata: %d, with tails: %d\n", totals.results[0],
                totals.results[1], totals.results[2], totals.automata, totals.tails);
    // The generator must keep producing each kind of case.
    for (const int count : totals.results)
        EXPECT_GT(count, 10000);
    EXPECT_GT(totals.automata, 50000);
    EXPECT_GT(totals.tails, 1000);
}

}  // namespace
