// A compiled pattern made deterministic: one table look-up a byte, for the few patterns that judge every
// connection. It gives exactly what RegexpMatch gives for one chunk with kRegFirstMatch.
//
// Only patterns with few labelled edges and few reachable sets of them are made deterministic; for any other
// Build fails and the caller runs the Regexp itself, so no pattern costs more than a bounded time and memory
// here.
//
// Threads: only read once built. Running allocates nothing.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "protocols/regexp.h"

class ByteAutomaton {
  public:
    /// Builds the table for a pattern under kRegIcase or not. False, holding nothing, when the pattern is too
    /// large or memory runs out. The Regexp isn't needed afterwards.
    bool Build(const Regexp& regexp, unsigned flags);

    bool IsBuilt() const { return !next_.empty(); }

    /// kMatch, kUndecided or kNoMatch.
    int Run(const unsigned char* data, std::size_t length) const;

    /// Whether data that begins with this byte can match at all (isn't kNoMatch after it).
    bool CanBeginWith(unsigned char byte) const { return next_[kStart + classOf_[byte]] != kDead; }

    /// Whether MayMatch is worth a call before Run: the pattern never gives up early, as one with a leading
    /// ".*", and each of its matches ends in a tail that is quick to look for.
    bool HasTail() const { return tailLength_ != 0; }

    /// False when no prefix of the data can be a match, because its tail is nowhere in the data. Needs
    /// HasTail.
    bool MayMatch(const unsigned char* data, std::size_t length) const;

  private:
    class Builder;

    // A state is the offset of its row in next_; the two ends of a run have no row.
    static constexpr unsigned kDead = 0;
    static constexpr unsigned kAccepted = 1;
    static constexpr unsigned kStart = 2;

    bool TailEndsAt(const unsigned char* last) const;

    std::vector<std::uint16_t> next_;          // by state + byte class
    std::array<std::uint8_t, 256> classOf_{};  // bytes that no edge tells apart share a class
    bool acceptsNothing_ = false;              // the empty pattern is in the language

    // The tail: which bytes can stand at each distance from the last byte of a match. At tailAnchor_ only one
    // can.
    std::array<std::uint8_t, 256> tailBytes_{};  // bit d: the byte can stand d before the last
    unsigned tailLength_ = 0;
    unsigned tailAnchor_ = 0;
    unsigned char tailAnchorByte_ = 0;
};
