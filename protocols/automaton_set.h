// The patterns of many rows as deterministic automata over one table, and the run of all of them through the
// same data.
//
// Rows are stepped together, so a step waits for one look-up in memory however many rows are alive; what a
// byte costs is about the same for any data. Most rows are out after one byte, and those that could match
// anywhere are mostly out after a look for the ends of their matches.
//
// Threads: Build is for one thread, before any other uses the object; all else only reads it. Running
// allocates nothing.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "protocols/byte_automaton.h"
#include "protocols/regexp.h"
#include "protocols/tail_search.h"

class AutomatonSet {
  public:
    static constexpr std::size_t kMaxRows = 32;  // one bit each
    using RowMask = std::uint32_t;

    struct Pattern {
        const Regexp* regexp = nullptr;  ///< null when the row has none; not needed after Build
        unsigned flags = 0;
    };
    using Patterns = std::array<Pattern, kMaxRows>;

    /// Builds the automata of all patterns that are to report their first match and aren't too large; of none
    /// when memory runs out.
    void Build(const Patterns& patterns);

    /// The rows that have an automaton.
    RowMask Rows() const { return rows_; }

    struct Verdicts {
        RowMask matched;    ///< the first row that matches, or none
        RowMask undecided;  ///< of the rows before it: those that more data could make match
    };

    /// Runs these rows, each of which has an automaton, over at least one byte. What it says of a row is what
    /// RegexpMatch says of the row's pattern.
    Verdicts Run(RowMask rows, const unsigned char* data, std::size_t length) const;

  private:
    class Joiner;
    class Search;

    // States are offsets in bytes into a column. The two ends of a run are the same for every row and lead to
    // themselves.
    static constexpr unsigned kDead = 0;
    static constexpr unsigned kAccepted = sizeof(std::uint16_t);

    RowMask rows_ = 0;
    std::vector<std::uint16_t> table_;  // a column for each byte class: by state, the next state
    std::array<const unsigned char*, 256> columns_{};  // by byte; all in table_
    std::array<std::uint16_t, kMaxRows> starts_{};     // by row
    std::array<RowMask, 256> beginners_{};  // by byte: rows that aren't dead when data begins with it
    std::array<RowMask, 256> resters_{};    // by byte: rows that it leaves in their start state
    RowMask searchers_ = 0;                 // rows with a tail
    std::array<std::unique_ptr<TailSearch>, kMaxRows> tails_;
};
