// See owned_pieces.h.
#include "messages/owned_pieces.h"

#include <algorithm>
#include <new>

OwnedPieces::OwnedPieces() {
    // Header, prepared fields, further fields: what every request has.
    pieces_.reserve(4);
}

BufferPiece OwnedPieces::Allocate(std::uint32_t size, BufferAllocFunction alloc) {
    if (size == 0) return {0, nullptr};
    // The entry first: memory that can't be recorded would be lost.
    pieces_.push_back({size, nullptr});
    unsigned char* memory = alloc != nullptr ? alloc(size) : new (std::nothrow) unsigned char[size];
    if (memory == nullptr) {
        pieces_.pop_back();
        throw std::bad_alloc();
    }
    std::fill_n(memory, size, static_cast<unsigned char>(0));
    pieces_.back().data = memory;
    return {size, memory};
}

void OwnedPieces::Take(const BufferPiece* pieces, std::uint32_t count) {
    pieces_.insert(pieces_.end(), pieces, pieces + count);
}

void OwnedPieces::GiveAwayLast() {
    pieces_.pop_back();
}

void OwnedPieces::GiveAwayFrom(const unsigned char* memory) {
    const auto begins = [memory](const BufferPiece& piece) { return piece.data == memory; };
    pieces_.erase(std::find_if(pieces_.begin(), pieces_.end(), begins), pieces_.end());
}

void OwnedPieces::ReleaseAll(BufferFreeFunction release) {
    for (const BufferPiece& piece : pieces_) {
        if (release != nullptr) {
            release(piece.data);
        } else {
            delete[] piece.data;
        }
    }
    pieces_.clear();
}
