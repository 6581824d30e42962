// Short-lived buffers of messages and relays, carved off the free end of large blocks that are kept for the
// life of the library. A block's space comes back at once when its last live buffer goes, and the end of it
// whenever its highest live buffer goes. Buffers are bytes: they are not aligned to more than 1.
//
// Any thread may call. The arena's lock is held for the whole of each operation and guards the blocks too;
// nothing else is locked and nothing but the global allocator is called while it is held.
#pragma once

#include <cstdint>
#include <vector>

#include "base/locker.h"

/// One contiguous block. `start` <= `nextFree` <= `limit`; every live start lies in [start, nextFree).
struct ArenaBlock {
    std::uintptr_t start;
    std::uintptr_t limit;
    /// Where the next buffer is carved.
    std::uintptr_t nextFree;
    /// Start of every buffer handed out and not released, ascending. A sorted array: carving appends at its
    /// end, and a block rarely has more than a few dozen live buffers.
    std::vector<std::uintptr_t> liveStarts;
};

class BufferArena {
  public:
    BufferArena() = default;
    BufferArena(const BufferArena&) = delete;
    BufferArena& operator=(const BufferArena&) = delete;
    ~BufferArena();

    /// Sets the size of new blocks and adds one; false when there is no memory for it. Without Init each
    /// block is as large as the request that needs it.
    bool Init(std::uint32_t blockSize) noexcept;

    /// At least `size` bytes; null only when memory has run out.
    unsigned char* Allocate(std::uint32_t size) noexcept;

    /// Releases a buffer. Null is ignored; memory that lies in no block came from new[] and is released so.
    void Free(unsigned char* address) noexcept;

    /// Makes an address inside a block's used part a live buffer of its own, to be released by Free; any
    /// other address is ignored. False when memory has run out and the address is not recorded.
    bool MarkAllocated(unsigned char* address) noexcept;

    /// Releases every block. No buffer may be in use any more, nor be given to Free afterwards.
    void Destroy() noexcept;

    /// A copy of the blocks, in the order in which they were made.
    std::vector<ArenaBlock> BlocksForTest();

  private:
    /// Throws std::bad_alloc with nothing changed.
    void AddBlock(std::uint32_t size) QX_REQUIRES(lock_);
    ArenaBlock* FindBlock(std::uintptr_t address) QX_REQUIRES(lock_);

    OwnedCriticalSection lock_;
    std::vector<ArenaBlock> blocks_ QX_GUARDED_BY(lock_);
    std::uint32_t blockSize_ QX_GUARDED_BY(lock_) = 0;
};

/// The process's arena, made on first use.
BufferArena& TheBufferArena() noexcept;

/// Empties the process's arena and deletes its lock, at detach, when no other thread uses it; it may be used
/// again afterwards.
void DestroyBufferArena() noexcept;

/// Allocate, Free and MarkAllocated on the process's arena.
unsigned char* ArenaAlloc(std::uint32_t size) noexcept;
void ArenaFree(unsigned char* address) noexcept;
bool ArenaMarkAllocated(unsigned char* address) noexcept;
