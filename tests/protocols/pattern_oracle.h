// A second, independent matcher for random patterns: it walks the syntax tree with sets of positions in the
// data, so it shares neither parser nor automaton with the engine under test. Patterns come with their tree
// from a generator.
#pragma once

#include <bitset>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/seeded_random.h"

struct PatternNode {
    enum class Kind { kByte, kSequence, kChoice, kRepeat };
    Kind kind;
    std::bitset<256> accepted;       // kByte
    std::vector<PatternNode> parts;  // the others; kRepeat has one
    char quantifier = 0;             // kRepeat
};

struct RandomPattern {
    std::string text;
    PatternNode root;
};

/// A pattern of the whole grammar, with no more than 16 classes.
RandomPattern MakePattern(SeededRandom& random);

/// The oracle has a bit for each position.
inline constexpr std::size_t kMaxOracleData = 60;

/// Up to kMaxOracleData bytes that the pattern may like: members of its language, cut, extended or damaged,
/// or noise.
std::string MakeData(SeededRandom& random, const PatternNode& root, bool ignoreCase);

/// What RegexpMatch must answer: 2, 1 or 0.
int OracleMatch(const PatternNode& root, const std::string& data, bool firstMatch, bool ignoreCase);
