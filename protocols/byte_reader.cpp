// A cursor over data in several chunks; see the header.
#include "protocols/byte_reader.h"

#include <algorithm>

bool ByteReader::Append(const DataChunk& chunk) {
    if (chunkCount_ == kMaxChunks) return false;
    chunks_[chunkCount_] = {std::max<std::int32_t>(chunk.length, 0), chunk.data};
    total_ += chunks_[chunkCount_].length;
    remaining_ += chunks_[chunkCount_].length;
    ++chunkCount_;
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

void ByteReader::Rewind() {
    chunk_ = 0;
    offset_ = 0;
    remaining_ = total_;
}
