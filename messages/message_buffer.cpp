// See message_buffer.h.
#include "messages/message_buffer.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>

namespace {

/// Hands `pieces` out as a new[] array; with `copy` the memory of each is copied first. Throws without
/// leaking.
void HandOut(std::vector<BufferPiece>& pieces, bool copy, BufferPiece*& outArray, std::uint32_t& outCount) {
    auto array = std::make_unique<BufferPiece[]>(pieces.size());
    std::vector<std::unique_ptr<unsigned char[]>> copies;
    if (copy) {
        copies.reserve(pieces.size());
        for (BufferPiece& piece : pieces) {
            copies.push_back(std::make_unique<unsigned char[]>(piece.length));
            if (piece.length != 0) std::memcpy(copies.back().get(), piece.data, piece.length);
            piece.data = copies.back().get();
        }
        for (auto& owned : copies)
            owned.release();
    }
    std::copy(pieces.begin(), pieces.end(), array.get());
    outCount = static_cast<std::uint32_t>(pieces.size());
    outArray = array.release();
}

}  // namespace

MessageBuffer::MessageBuffer()
    : position_{kInvalidPosition, kInvalidPosition, kInvalidPosition}, totalLength_(0) {
    // Header, prepared fields, further fields: what every request has.
    pieces_.reserve(4);
}

void MessageBuffer::AddBuffer(BufferPiece piece) {
    if (piece.length > kInvalidPosition - 1 - totalLength_) throw MessageError("Message too long");
    pieces_.push_back(piece);
    totalLength_ += piece.length;
}

void MessageBuffer::AddContiguous(BufferPiece piece) {
    const bool joins = !pieces_.empty() && pieces_.back().data + pieces_.back().length == piece.data;
    if (!joins || piece.length > kInvalidPosition - 1 - totalLength_) {
        AddBuffer(piece);
        return;
    }
    // A position behind the last piece is counted from its start from now on.
    if (position_.pieceIndex == pieces_.size()) {
        position_.pieceIndex -= 1;
        position_.pieceOffset += pieces_.back().length;
    }
    pieces_.back().length += piece.length;
    totalLength_ += piece.length;
}

std::uint32_t MessageBuffer::GetRemaining() const {
    return position_.absolutePosition < totalLength_ ? totalLength_ - position_.absolutePosition : 0;
}

template <typename Visit>
void MessageBuffer::VisitBytes(std::uint32_t length, Visit visit) const {
    std::uint32_t offset = position_.pieceOffset;
    for (std::size_t index = position_.pieceIndex; length != 0; ++index) {
        const BufferPiece& piece = pieces_[index];
        if (offset >= piece.length) {
            offset -= piece.length;
            continue;
        }
        const std::uint32_t part = std::min(length, piece.length - offset);
        visit(piece.data + offset, part);
        length -= part;
        offset = 0;
    }
}

std::uint32_t MessageBuffer::WriteAt(const void* source, std::uint32_t length) {
    if (GetRemaining() < length) return 0;
    const auto* from = static_cast<const unsigned char*>(source);
    VisitBytes(length, [&from](unsigned char* bytes, std::uint32_t count) {
        std::memcpy(bytes, from, count);
        from += count;
    });
    return length;
}

std::uint32_t MessageBuffer::ReadAt(void* destination, std::uint32_t length) const {
    if (GetRemaining() < length) return 0;
    auto* to = static_cast<unsigned char*>(destination);
    VisitBytes(length, [&to](const unsigned char* bytes, std::uint32_t count) {
        std::memcpy(to, bytes, count);
        to += count;
    });
    return length;
}

bool MessageBuffer::Move(std::uint32_t count) {
    if (count == 0) return true;
    if (count > GetRemaining()) return false;
    position_.absolutePosition += count;
    position_.pieceOffset += count;
    // The bytes are there, so the walk ends inside a piece or exactly at the end. It stops at the first piece
    // that begins at the target, also at an empty one.
    while (position_.pieceOffset != 0 && position_.pieceIndex < pieces_.size() &&
           position_.pieceOffset >= pieces_[position_.pieceIndex].length) {
        position_.pieceOffset -= pieces_[position_.pieceIndex++].length;
    }
    return true;
}

MessageBuffer& MessageBuffer::operator+=(std::uint32_t count) {
    Move(count);
    return *this;
}

void MessageBuffer::SetPosition(std::uint32_t absolutePosition) {
    const BufferPosition saved = position_;
    position_ = {0, 0, 0};
    if (Move(absolutePosition)) return;
    position_ = saved;
    throw MessageError("New position too large");
}

bool MessageBuffer::Truncate(std::uint32_t newTotalLength) noexcept {
    if (newTotalLength > totalLength_) return false;
    if (newTotalLength == totalLength_) return true;
    std::uint32_t rest = newTotalLength;
    std::size_t index = 0;
    while (pieces_[index].length <= rest)
        rest -= pieces_[index++].length;
    if (rest != 0) pieces_[index++].length = rest;
    pieces_.erase(pieces_.begin() + static_cast<std::ptrdiff_t>(index), pieces_.end());
    totalLength_ = newTotalLength;
    if (position_.absolutePosition > totalLength_ && position_.absolutePosition != kInvalidPosition) {
        // Its piece may be gone: count from the end, so that the place stays right when the chain grows
        // again.
        position_.pieceIndex = static_cast<std::uint32_t>(pieces_.size());
        position_.pieceOffset = position_.absolutePosition - totalLength_;
    }
    return true;
}

void MessageBuffer::GetSubBuffers(std::uint32_t start, std::uint32_t length, BufferPiece*& outArray,
                                  std::uint32_t& outCount, bool copy) const {
    std::vector<BufferPiece> collected;
    std::size_t index = 0;
    std::uint32_t offset = start;
    while (index < pieces_.size() && pieces_[index].length <= offset)
        offset -= pieces_[index++].length;
    std::uint32_t wanted = length;
    for (; wanted != 0 && index < pieces_.size(); ++index, offset = 0) {
        const BufferPiece& piece = pieces_[index];
        const std::uint32_t part = std::min(piece.length - offset, wanted);
        collected.push_back({part, piece.data + offset});
        wanted -= part;
    }
    if (wanted != 0) throw MessageError("Length exceeds the available buffer.");
    HandOut(collected, copy, outArray, outCount);
}

void MessageBuffer::GetAllBuffers(BufferPiece*& outArray, std::uint32_t& outCount, bool copy) const {
    if (copy) {
        std::vector<BufferPiece> all = pieces_;
        HandOut(all, copy, outArray, outCount);
        return;
    }
    auto* array = new BufferPiece[pieces_.size()];
    std::copy(pieces_.begin(), pieces_.end(), array);
    outArray = array;
    outCount = static_cast<std::uint32_t>(pieces_.size());
}

void MessageBuffer::Clear() noexcept {
    pieces_.clear();
    totalLength_ = 0;
    position_ = {kInvalidPosition, kInvalidPosition, kInvalidPosition};
}
