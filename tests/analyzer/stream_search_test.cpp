// The search in a stream against a matcher of another kind, which tries every beginning and every end.
#include "analyzer/stream_search.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "tests/protocols/pattern_oracle.h"

namespace {

struct Found {
    std::size_t begin;
    std::size_t end;

    bool operator==(const Found& other) const { return begin == other.begin && end == other.end; }
};

std::ostream& operator<<(std::ostream& out, const Found& found) {
    return out << "[" << found.begin << ", " << found.end << ")";
}

std::vector<Found> Expected(const PatternNode& root, const std::string& data, bool ignoreCase) {
    std::vector<Found> all;
    std::size_t from = 0;
    for (std::size_t end = 1; end <= data.size(); ++end) {
        for (std::size_t begin = from; begin < end; ++begin) {
            if (OracleMatch(root, data.substr(begin, end - begin), false, ignoreCase) != kMatch) continue;
            all.push_back({begin, end});
            from = end;
            break;
        }
    }
    return all;
}

/// Looks at the data in pieces of up to `mostPiece` bytes.
std::vector<Found> Search(StreamSearch& search, const std::string& data, std::size_t mostPiece) {
    std::vector<Found> all;
    const auto* const bytes = reinterpret_cast<const unsigned char*>(data.data());
    for (std::size_t at = 0; at < data.size();) {
        std::size_t looked = 0;
        const auto match = search.Look(bytes + at, std::min(mostPiece, data.size() - at), looked);
        at += looked;
        if (match) all.push_back({at - match->length, at});
    }
    return all;
}

TEST(StreamSearch, FindsWhatEveryBeginningAndEndWouldFind) {
    SeededRandom random;
    int found = 0;
    for (int round = 0; round < 3000; ++round) {
        const RandomPattern pattern = MakePattern(random);
        const bool ignoreCase = random.Below(2) == 0;
        SCOPED_TRACE(pattern.text + ", seed " + std::to_string(random.Seed()));
        if (OracleMatch(pattern.root, "", false, ignoreCase) == kMatch) {
            EXPECT_THROW(SearchPattern(pattern.text, ignoreCase), std::invalid_argument);
            continue;
        }
        const SearchPattern compiled(pattern.text, ignoreCase);
        std::string data = MakeData(random, pattern.root, ignoreCase);
        data = (MakeData(random, pattern.root, ignoreCase) + data).substr(0, kMaxOracleData);
        const std::vector<Found> expected = Expected(pattern.root, data, ignoreCase);
        found += static_cast<int>(expected.size());
        for (const std::size_t piece : {std::size_t(1), std::size_t(1 + random.Below(7)), data.size() + 1}) {
            StreamSearch search(compiled);
            EXPECT_EQ(Search(search, data, piece), expected) << "pieces of " << piece;
        }
    }
    EXPECT_GT(found, 1000) << "the data must not be noise alone";
}

TEST(StreamSearch, OfAMatchOnlySoMuchIsKept) {
    const SearchPattern pattern("<.*>", false);
    StreamSearch search(pattern);
    const auto look = [&search](const std::string& text) {
        std::size_t looked = 0;
        return search.Look(reinterpret_cast<const unsigned char*>(text.data()), text.size(), looked);
    };
    for (const std::size_t over : {0, 1}) {
        EXPECT_FALSE(look("<" + std::string(kMostMatchBytes - 2 + over, 'x')));
        const auto match = look(">");
        ASSERT_TRUE(match);
        EXPECT_EQ(match->length, kMostMatchBytes);
        EXPECT_EQ(match->whole, over == 0);
    }
    EXPECT_FALSE(look("<yy"));
    EXPECT_EQ(search.OpenBytes(), 3u);
    search.LetGo();
    EXPECT_EQ(search.OpenBytes(), 0u);
    const auto match = look("z>");
    ASSERT_TRUE(match);
    EXPECT_EQ(match->length, 2u);
    EXPECT_FALSE(match->whole);
}

}  // namespace
