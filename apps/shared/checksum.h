// A checksum by which both ends of a transfer can say that they mean the same bytes: FNV-1a with 64 bits. It
// finds mistakes, no intent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

class Checksum {
  public:
    void Add(const char* bytes, std::size_t count) {
        for (std::size_t at = 0; at < count; ++at)
            state_ = (state_ ^ static_cast<unsigned char>(bytes[at])) * 0x100000001B3u;
    }

    /// 16 hexadecimal digits.
    std::string Text() const {
        char text[17];
        std::snprintf(text, sizeof(text), "%08lx%08lx", static_cast<unsigned long>(state_ >> 32),
                      static_cast<unsigned long>(state_ & 0xFFFFFFFFu));
        return text;
    }

  private:
    std::uint64_t state_ = 0xCBF29CE484222325u;
};
