// See buffer_arena.h.
#include "messages/buffer_arena.h"

#include <algorithm>
#include <new>

#include "base/process_object.h"

namespace {

constexpr std::size_t kLiveStartsAtFirst = 32;

ProcessObject<BufferArena> TheArena;

unsigned char* Address(std::uintptr_t address) {
    return reinterpret_cast<unsigned char*>(address);
}

std::uintptr_t Number(const unsigned char* address) {
    return reinterpret_cast<std::uintptr_t>(address);
}

bool HasRoom(const ArenaBlock& block, std::uint32_t size) {
    return block.limit - block.nextFree >= size;
}

/// Hands out the start of the block's free end. Throws std::bad_alloc with nothing changed.
unsigned char* Carve(ArenaBlock& block, std::uint32_t size) {
    const std::uintptr_t start = block.nextFree;
    block.liveStarts.push_back(start);
    block.nextFree += size;
    return Address(start);
}

void ReleaseIn(ArenaBlock& block, std::uintptr_t address) {
    std::vector<std::uintptr_t>& live = block.liveStarts;
    const auto found = std::lower_bound(live.begin(), live.end(), address);
    bool wasHighest = false;
    if (found != live.end() && *found == address) {
        wasHighest = found + 1 == live.end();
        live.erase(found);
    }
    if (live.empty()) {
        block.nextFree = block.start;
    } else if (wasHighest) {
        block.nextFree = address;
    }
}

}  // namespace

BufferArena::~BufferArena() {
    Destroy();
}

void BufferArena::AddBlock(std::uint32_t size) {
    ArenaBlock block{};
    block.liveStarts.reserve(kLiveStartsAtFirst);
    auto* memory = new unsigned char[size];
    block.start = Number(memory);
    block.limit = block.start + size;
    block.nextFree = block.start;
    try {
        blocks_.push_back(std::move(block));
    } catch (...) {
        delete[] memory;
        throw;
    }
}

ArenaBlock* BufferArena::FindBlock(std::uintptr_t address) {
    for (ArenaBlock& block : blocks_) {
        if (address >= block.start && address < block.limit) return &block;
    }
    return nullptr;
}

bool BufferArena::Init(std::uint32_t blockSize) noexcept {
    Locker hold(lock_);
    blockSize_ = blockSize;
    try {
        AddBlock(blockSize);
        return true;
    } catch (...) {
        return false;
    }
}

unsigned char* BufferArena::Allocate(std::uint32_t size) noexcept {
    // An empty buffer would share its start with the next one.
    if (size == 0) size = 1;
    Locker hold(lock_);
    try {
        for (ArenaBlock& block : blocks_) {
            if (HasRoom(block, size)) return Carve(block, size);
        }
        AddBlock(std::max(blockSize_, size));
        return Carve(blocks_.back(), size);
    } catch (...) {
        return nullptr;
    }
}

void BufferArena::Free(unsigned char* address) noexcept {
    if (address == nullptr) return;
    {
        Locker hold(lock_);
        if (ArenaBlock* block = FindBlock(Number(address))) {
            ReleaseIn(*block, Number(address));
            return;
        }
    }
    delete[] address;
}

bool BufferArena::MarkAllocated(unsigned char* address) noexcept {
    const std::uintptr_t number = Number(address);
    Locker hold(lock_);
    ArenaBlock* block = FindBlock(number);
    if (block == nullptr || number >= block->nextFree) return true;
    std::vector<std::uintptr_t>& live = block->liveStarts;
    const auto place = std::lower_bound(live.begin(), live.end(), number);
    if (place != live.end() && *place == number) return true;
    try {
        live.insert(place, number);
        return true;
    } catch (...) {
        return false;
    }
}

void BufferArena::Destroy() noexcept {
    Locker hold(lock_);
    for (const ArenaBlock& block : blocks_)
        delete[] Address(block.start);
    std::vector<ArenaBlock>().swap(blocks_);
}

std::vector<ArenaBlock> BufferArena::BlocksForTest() {
    Locker hold(lock_);
    return blocks_;
}

BufferArena& TheBufferArena() noexcept {
    return TheArena.Get();
}

void DestroyBufferArena() noexcept {
    TheArena.Destroy();
}

unsigned char* ArenaAlloc(std::uint32_t size) noexcept {
    return TheBufferArena().Allocate(size);
}

void ArenaFree(unsigned char* address) noexcept {
    TheBufferArena().Free(address);
}

bool ArenaMarkAllocated(unsigned char* address) noexcept {
    return TheBufferArena().MarkAllocated(address);
}
