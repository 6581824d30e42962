// One compiled pattern made deterministic: a table that says which state each byte leads to. It gives exactly
// what RegexpMatch gives for one chunk of at least one byte with kRegFirstMatch.
//
// Only patterns with few labelled edges and few reachable sets of them are made deterministic; any other is
// left to RegexpMatch, so no pattern costs more than a bounded time and memory here.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "protocols/regexp.h"
#include "protocols/tail_search.h"

struct ByteAutomaton {
    /// The two ends of a run, which have no place in the table, and the first state that has one.
    static constexpr unsigned kDead = 0;
    static constexpr unsigned kAccepted = 1;
    static constexpr unsigned kStart = 2;

    std::vector<std::uint16_t> next;          ///< by state, counted from kStart, and byte class
    std::array<std::uint8_t, 256> classOf{};  ///< bytes that no edge tells apart share a class
    std::size_t classCount = 0;

    /// Usable when the pattern never gives up, as one with a leading ".*", and the ends of its matches are
    /// quick to look for.
    TailSearch tail;

    std::size_t StateCount() const { return next.size() / classCount; }
    unsigned Next(unsigned state, unsigned char byte) const {
        return next[(state - kStart) * classCount + classOf[byte]];
    }
};

/// Builds the table for a pattern under kRegIcase or not. False when the pattern is too large; what the
/// automaton holds is then of no use. Throws std::bad_alloc. The Regexp isn't needed afterwards.
bool MakeDeterministic(ByteAutomaton& automaton, const Regexp& regexp, unsigned flags);
