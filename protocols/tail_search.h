// A quick look for the end of a match, before a pattern that could start anywhere is stepped through all of
// the data.
//
// Threads: only read once built.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

/// What shortcuts may still cost while some data is searched, in units of about five bytes' stepping: what
/// one that fails costs. So data made to defeat them costs at most an eighth more than stepping through it.
class Patience {
  public:
    explicit Patience(std::size_t length) : left_(2 + length / 40) {}

    bool Lasts() const { return left_ != 0; }

    /// After a shortcut that led nowhere.
    void Lose(std::size_t amount) { left_ -= std::min(left_, amount); }

    /// After one that saved time.
    void Gain(std::size_t amount) { left_ += amount; }

  private:
    std::size_t left_;
};

class TailSearch {
  public:
    static constexpr unsigned kMaxLength = 8;  // one bit each

    /// Says that the byte can stand this far before the last byte of a match.
    void Allow(unsigned char byte, unsigned distance) {
        allowed_[byte] |= static_cast<std::uint8_t>(1u << distance);
    }

    /// Makes the byte the one that is looked for: no other can stand at this distance.
    void Anchor(unsigned char byte, unsigned distance) {
        anchorByte_ = byte;
        anchor_ = distance;
    }

    /// How many last bytes each match has.
    void SetLength(unsigned length) { length_ = length; }

    /// False while there is no anchor to look for.
    bool IsUsable() const { return length_ != 0; }

    /// False when no prefix of the data can be a match, because no match ends anywhere in it. True also when
    /// the patience is over.
    bool MayMatch(const unsigned char* data, std::size_t length, Patience& patience) const;

  private:
    bool EndsAt(const unsigned char* last) const;

    std::array<std::uint8_t, 256> allowed_{};  // bit d: the byte can stand d before the last
    unsigned length_ = 0;
    unsigned anchor_ = 0;  // less than length_
    unsigned char anchorByte_ = 0;
};
