// The memory that a message must release: its own allocations and what was given to it, in the order in which
// they came. Chains point into it. One thread at a time.
#pragma once

#include <cstdint>
#include <vector>

#include "messages/message_buffer.h"

/// Gives `size` bytes, or null when memory has run out. Must not throw.
using BufferAllocFunction = unsigned char* (*)(std::uint32_t size);
/// Takes back what the matching BufferAllocFunction or new[] gave.
using BufferFreeFunction = void (*)(unsigned char* memory);

/// Releases nothing by itself: its holder knows the function, and calls ReleaseAll before it ends.
class OwnedPieces {
  public:
    OwnedPieces();
    OwnedPieces(const OwnedPieces&) = delete;
    OwnedPieces& operator=(const OwnedPieces&) = delete;

    /// A zero-filled piece from `alloc` (null: new[]); {0, null} for size 0. Throws std::bad_alloc.
    BufferPiece Allocate(std::uint32_t size, BufferAllocFunction alloc);

    /// Takes these over. Throws std::bad_alloc with none taken.
    void Take(const BufferPiece* pieces, std::uint32_t count);

    /// Gives away the buffer that came last.
    void GiveAwayLast();

    /// Gives away the first buffer that begins with `memory` and all that came after it; none if there is no
    /// such buffer.
    void GiveAwayFrom(const unsigned char* memory);

    /// Gives back all memory through `release` (null: delete[]).
    void ReleaseAll(BufferFreeFunction release);

  private:
    std::vector<BufferPiece> pieces_;
};
