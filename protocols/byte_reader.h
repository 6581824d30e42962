// A cursor over data that lies in up to 16 chunks. A read that asks for more bytes than remain fails and
// takes none. Copies nothing but what is read; the chunks' bytes must outlive it. One caller at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "protocols/regexp.h"

class ByteReader {
  public:
    static constexpr int kMaxChunks = 16;

    /// Adds a chunk at the end; one of negative length counts as empty. False when there are 16 already.
    bool Append(const DataChunk& chunk);

    std::size_t Remaining() const { return remaining_; }

    bool ReadByte(std::uint8_t& byte);

    /// Reads `bytes` (1 to 4) bytes, the most significant first.
    bool ReadBigEndian(int bytes, std::uint32_t& value);

    bool Skip(std::size_t bytes);

  private:
    std::array<DataChunk, kMaxChunks> chunks_;
    int chunkCount_ = 0;
    int chunk_ = 0;              // where the cursor stands ...
    std::size_t offset_ = 0;     // ... and at which byte of that chunk
    std::size_t remaining_ = 0;  // bytes behind the cursor
};
