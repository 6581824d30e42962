// Taking the pieces off one by one.
#include "platform/tcpip/piece_source.h"

#include <winsock2.h>

#include <algorithm>
#include <utility>

namespace tcpip {

void PieceSource::AddMemory(void* data, std::size_t size) {
    if (size > 0) pieces_.push_back({{data, size}, nullptr, 0, size});
}

std::uint64_t PieceSource::AddFile(std::shared_ptr<platform::DiskFile> file, std::uint64_t offset,
                                   std::uint64_t size) {
    const std::uint64_t end = file->Size();
    const std::uint64_t there = offset < end ? std::min(size, end - offset) : 0;
    if (there > 0) pieces_.push_back({{nullptr, 0}, std::move(file), offset, there});
    return there;
}

std::uint64_t PieceSource::Size() const {
    std::uint64_t size = 0;
    for (const Piece& piece : pieces_)
        size += piece.size;
    return size;
}

int PieceSource::Next(kernel::IoBuffer* buffer) {
    constexpr std::uint64_t kChunk = 64 * 1024;
    for (; next_ < pieces_.size(); ++next_) {
        Piece& piece = pieces_[next_];
        if (piece.size == 0) continue;
        if (piece.file == nullptr) {
            *buffer = piece.memory;
            piece.size = 0;
            return 0;
        }
        std::size_t read = 0;
        chunk_.resize(static_cast<std::size_t>(std::min(piece.size, kChunk)));
        if (piece.file->ReadAt(piece.offset, chunk_.data(), chunk_.size(), &read) != 0)
            return WSA_INVALID_HANDLE;
        // A file that was cut meanwhile ends early.
        piece.size = read < chunk_.size() ? 0 : piece.size - read;
        piece.offset += read;
        *buffer = {chunk_.data(), read};
        if (read > 0) return 0;
    }
    *buffer = {nullptr, 0};
    return 0;
}

}  // namespace tcpip
