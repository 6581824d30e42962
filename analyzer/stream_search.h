// Search for a pattern in a stream of bytes that arrives in pieces. The pattern runs once over every byte,
// with all starts side by side, so that no text and no pattern makes it go back or run deep, and what lies
// across two pieces is found as if they were one.
//
// A match is the first that is complete: it ends as soon as the bytes fit, and of those that end there the
// one that began first is taken.
//
// The patterns are the protocol table's: they mean the same on every target, and their engine has no
// recursion that the other side's bytes could drive.
#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "protocols/regexp.h"

constexpr std::size_t kMostPatternBytes = 1024;
constexpr std::size_t kMostMatchBytes = 4096;

/// A compiled pattern; only read once it is made.
class SearchPattern {
  public:
    /// Throws std::invalid_argument, which says what is wrong with the pattern.
    SearchPattern(const std::string& text, bool ignoreCase);

  private:
    friend class StreamSearch;

    bool Accepts(const RegEdge& edge, unsigned byte) const {
        return RegLabelAccepts(regexp_, edge.label, byte, flags_);
    }

    Regexp regexp_;
    unsigned flags_;
    std::vector<const RegState*> starts_;
    std::bitset<256> beginsWith_;
};

/// One search in one stream.
class StreamSearch {
  public:
    /// `pattern` must outlive the search.
    explicit StreamSearch(const SearchPattern& pattern);

    struct Match {
        /// How many of the last bytes are the match; kMostMatchBytes at most.
        std::size_t length;
        /// Whether it is all there: it isn't longer, and nothing of it was let go.
        bool whole;
    };

    /// Looks at bytes of the stream until a match is complete or all are seen; `looked` says how many were.
    /// The match ends with the last of these; its beginning may lie in bytes of earlier calls. The search
    /// then begins anew.
    std::optional<Match> Look(const unsigned char* bytes, std::size_t count, std::size_t& looked);

    /// How many of the last bytes may belong to a match that isn't complete yet; kMostMatchBytes at most.
    std::size_t OpenBytes() const;

    /// The bytes seen so far have gone. A match that began in them goes on.
    void LetGo() { gone_ = position_; }

  private:
    struct Thread {
        const RegState* state;
        std::uint64_t begin;
    };

    void Step(unsigned byte);
    void Enter(const RegState* state, std::uint64_t begin);
    std::size_t LengthFrom(std::uint64_t begin) const;

    const SearchPattern& pattern_;
    std::uint64_t position_ = 0;
    std::uint64_t gone_ = 0;
    /// Ordered by their beginnings, the oldest first; no state twice.
    std::vector<Thread> threads_;
    std::vector<Thread> next_;
    std::vector<const RegState*> toEnter_;
    /// The step in which a state was entered last.
    std::vector<std::uint64_t> enteredAt_;
    std::optional<std::uint64_t> matchBegin_;
};
