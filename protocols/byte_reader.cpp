// A cursor over data in several chunks; see the header.
#include "protocols/byte_reader.h"

#include <algorithm>

bool ByteReader::Append(const DataChunk& chunk) {
    if (chunkCount_ == kMaxChunks) return false;
    const std::int32_t length = std::max<std::int32_t>(chunk.length, 0);
    DataChunk& added = chunks_[chunkCount_++];
    added.length = length;
    added.data = chunk.data;
    remaining_ += length;
    return true;
}

bool ByteReader::ReadByte(std::uint8_t& byte) {
    if (remaining_ == 0) return false;
    while (offset_ == static_cast<std::size_t>(chunks_[chunk_].length)) {
        ++chunk_;
        offset_ = 0;
    }
    byte = static_cast<const std::uint8_t*>(chunks_[chunk_].data)[offset_++];
    --remaining_;
    return true;
}

bool ByteReader::ReadBigEndian(int bytes, std::uint32_t& value) {
    if (remaining_ < static_cast<std::size_t>(bytes)) return false;
    value = 0;
    for (std::uint8_t byte = 0; bytes > 0 && ReadByte(byte); --bytes)
        value = value << 8 | byte;
    return true;
}

bool ByteReader::Skip(std::size_t bytes) {
    if (remaining_ < bytes) return false;
    remaining_ -= bytes;
    while (bytes > 0) {
        const std::size_t step = std::min(bytes, chunks_[chunk_].length - offset_);
        bytes -= step;
        offset_ += step;
        if (bytes == 0) break;
        ++chunk_;
        offset_ = 0;
    }
    return true;
}
