// Random patterns and data: the engine, in one chunk and in many, and sets of automata stepped together,
// against the oracle.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "protocols/automaton_set.h"
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
        std::snprintf(hex, sizeof(hex), "\\x%02x", static_cast<unsigned char>(c));
        text += c >= ' ' && c <= '~' ? std::string(1, c) : hex;
    }
    return text;
}

struct Totals {
    int results[3] = {};
    int automata = 0;
    int crowds = 0;  // more rows alive than are stepped at once
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
    }
}

TEST(RegexpDifferential, EngineAgreesWithTheOracle) {
    SeededRandom random;
    SCOPED_TRACE("QX_SEED=" + std::to_string(random.Seed()));
    RegMatcher matcher;
    ASSERT_EQ(0, RegMatcherInit(matcher, 4096));
    Totals totals;
    for (int i = 0; i < 7000 && !HasFatalFailure(); ++i)
        Compare(random, matcher, totals);
    // The generator must keep producing each kind of case.
    for (const int count : totals.results)
        EXPECT_GT(count, 10000);
}

/// Patterns that are run as one set, and what each says of some data.
struct RandomRows {
    std::vector<RandomPattern> patterns;
    std::vector<Regexp> regexps;
    std::vector<unsigned> flags;
    AutomatonSet set;

    explicit RandomRows(SeededRandom& random) {
        AutomatonSet::Patterns joined;
        regexps.resize(1 + random.Below(12));
        const bool searching = random.Below(2) == 0;
        for (std::size_t row = 0; row < regexps.size(); ++row) {
            RandomPattern pattern = MakePattern(random);
            while (searching && pattern.text.compare(0, 3, ".*(") != 0)
                pattern = MakePattern(random);
            patterns.push_back(std::move(pattern));
            flags.push_back(kRegFirstMatch | (random.Below(2) == 0 ? kRegIcase : 0u));
            EXPECT_EQ(0, RegexpCompile(regexps[row], patterns[row].text.c_str()));
            joined[row] = {&regexps[row], flags[row]};
        }
        set.Build(joined);
    }

    int Wanted(std::size_t row, const std::string& data) const {
        return OracleMatch(patterns[row].root, data, true, (flags[row] & kRegIcase) != 0);
    }

    /// Data that one of the patterns likes, behind or before what another does.
    std::string Data(SeededRandom& random) const {
        std::string data;
        for (int part = 0; part < 2; ++part) {
            const std::size_t row = random.Below(unsigned(patterns.size()));
            data += MakeData(random, patterns[row].root, (flags[row] & kRegIcase) != 0);
        }
        return data.substr(0, kMaxOracleData);
    }
};

void CompareRows(SeededRandom& random, Totals& totals) {
    const RandomRows rows(random);
    for (int i = 0; i < 64; ++i) {
        const std::string data = rows.Data(random);
        if (data.empty()) continue;
        AutomatonSet::Verdicts wanted{0, 0};
        AutomatonSet::RowMask asked = rows.set.Rows();
        if (random.Below(2) == 0) asked &= random.Below(1u << 31);
        int alive = 0;
        std::string where = Printable(data) + " by";
        for (std::size_t row = 0; row < rows.patterns.size() && wanted.matched == 0; ++row) {
            const AutomatonSet::RowMask bit = 1u << row;
            if ((asked & bit) == 0) continue;
            where += "  " + Printable(rows.patterns[row].text);
            const int verdict = rows.Wanted(row, data);
            ++totals.results[verdict];
            if (verdict == kMatch) wanted.matched = bit;
            if (verdict == kUndecided) wanted.undecided |= bit;
            alive += verdict != kNoMatch;
        }
        const AutomatonSet::Verdicts got =
            rows.set.Run(asked, reinterpret_cast<const unsigned char*>(data.data()), data.size());
        ASSERT_EQ(wanted.matched, got.matched) << where;
        ASSERT_EQ(wanted.undecided, got.undecided) << where;
        ++totals.automata;
        if (alive > 4) ++totals.crowds;
    }
}

TEST(AutomatonSet, StepsMoreRowsThanItCanKeepAtHand) {
    AutomatonSet::Patterns patterns;
    std::vector<Regexp> regexps(11);
    for (std::size_t row = 0; row < regexps.size(); ++row) {
        ASSERT_EQ(0, RegexpCompile(regexps[row], (std::string(30 + row, 'x') + "y").c_str()));
        patterns[row] = {&regexps[row], kRegFirstMatch};
    }
    AutomatonSet set;
    set.Build(patterns);
    const AutomatonSet::RowMask all = (1u << regexps.size()) - 1;
    ASSERT_EQ(all, set.Rows());
    for (std::size_t row = 0; row < regexps.size(); ++row) {
        std::string data(30 + row, 'x');
        const auto run = [&] {
            return set.Run(all, reinterpret_cast<const unsigned char*>(data.data()), data.size());
        };
        EXPECT_EQ(all & (all << row), run().undecided) << row;
        data += "yxxxxxxxxx";
        EXPECT_EQ(1u << row, run().matched) << row;
    }
}

TEST(RegexpDifferential, RowsSteppedTogetherAgreeWithTheOracle) {
    SeededRandom random(20261123);
    std::printf("QX_SEED=%u\n", random.Seed());
    Totals totals;
    for (int i = 0; i < 3000 && !HasFatalFailure(); ++i)
        CompareRows(random, totals);
    std::printf("results 0: %d, 1: %d, 2: %d; runs: %d, crowded: %d\n", totals.results[0], totals.results[1],
                totals.results[2], totals.automata, totals.crowds);
    for (const int count : totals.results)
        EXPECT_GT(count, 10000);
    EXPECT_GT(totals.crowds, 500);
}

}  // namespace
