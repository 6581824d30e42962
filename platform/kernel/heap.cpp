// Private heaps and LocalAlloc. Every block is an allocation of its own, so that memory checkers see overruns
// and use after free; a heap keeps its blocks in a list and frees them when it is destroyed.
#include "platform/kernel/heap.h"

#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <new>

#include "platform/kernel/fault_points.h"
#include "platform/kernel/last_error.h"

namespace platform {

namespace {

constexpr ULONG_PTR kHeapMark = 0x50414548;

struct Heap;

/// Stands before each block's memory.
struct alignas(16) Block {
    Block* next;
    Block* previous;
    Heap* heap;
};

struct Heap {
    ULONG_PTR mark = kHeapMark;
    Heap* olderHeap = nullptr;  // guarded by HeapListLock
    std::mutex mutex;           // leaf; guards the list
    Block* first = nullptr;
};

/// The heaps that exist, newest first: one whose destruction failed is not lost.
Heap* NewestHeap = nullptr;
std::mutex HeapListLock;  // leaf

void AddToHeapList(Heap* heap) {
    const std::lock_guard<std::mutex> holder(HeapListLock);
    heap->olderHeap = NewestHeap;
    NewestHeap = heap;
}

void RemoveFromHeapList(const Heap* heap) {
    const std::lock_guard<std::mutex> holder(HeapListLock);
    Heap** link = &NewestHeap;
    while (*link != heap)
        link = &(*link)->olderHeap;
    *link = heap->olderHeap;
}

std::atomic<int> Heaps{0};
std::atomic<int> HeapBlocks{0};
std::atomic<int> LocalBlocks{0};

Heap* FromHandle(HANDLE handle) {
    Heap* heap = static_cast<Heap*>(handle);
    return heap != nullptr && heap->mark == kHeapMark ? heap : nullptr;
}

}  // namespace

int CountHeaps() noexcept {
    return Heaps.load(std::memory_order_relaxed);
}
int CountHeapBlocks() noexcept {
    return HeapBlocks.load(std::memory_order_relaxed);
}
int CountLocalBlocks() noexcept {
    return LocalBlocks.load(std::memory_order_relaxed);
}

}  // namespace platform

using platform::Block;
using platform::Fail;
using platform::Heap;
using platform::PlatformCall;

HANDLE HeapCreate(DWORD, SIZE_T, SIZE_T maximumSize) {
    PlatformCall call("HeapCreate", ERROR_NOT_ENOUGH_MEMORY);
    if (call.Fails()) return nullptr;
    if (maximumSize != 0) return Fail<HANDLE>(ERROR_CALL_NOT_IMPLEMENTED, nullptr);
    Heap* heap = new (std::nothrow) Heap;
    if (heap == nullptr) return Fail<HANDLE>(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    platform::AddToHeapList(heap);
    platform::Heaps.fetch_add(1, std::memory_order_relaxed);
    return heap;
}

BOOL HeapDestroy(HANDLE handle) {
    PlatformCall call("HeapDestroy", ERROR_INVALID_HANDLE);
    if (call.Fails()) return FALSE;
    Heap* heap = platform::FromHandle(handle);
    if (heap == nullptr) return Fail(ERROR_INVALID_HANDLE);
    for (Block* block = heap->first; block != nullptr;) {
        Block* next = block->next;
        std::free(block);
        platform::HeapBlocks.fetch_sub(1, std::memory_order_relaxed);
        block = next;
    }
    heap->mark = 0;
    platform::RemoveFromHeapList(heap);
    delete heap;
    platform::Heaps.fetch_sub(1, std::memory_order_relaxed);
    return TRUE;
}

LPVOID HeapAlloc(HANDLE handle, DWORD flags, SIZE_T size) {
    // Windows sets no last error here; the result alone tells.
    PlatformCall call("HeapAlloc", ERROR_NOT_ENOUGH_MEMORY);
    Heap* heap = platform::FromHandle(handle);
    if (call.Faulted() || heap == nullptr || size > PTRDIFF_MAX - sizeof(Block)) return nullptr;
    const std::size_t whole = sizeof(Block) + size;
    void* memory = (flags & HEAP_ZERO_MEMORY) != 0 ? std::calloc(1, whole) : std::malloc(whole);
    if (memory == nullptr) return nullptr;
    Block* block = static_cast<Block*>(memory);
    block->heap = heap;
    block->previous = nullptr;
    {
        const std::lock_guard<std::mutex> holder(heap->mutex);
        block->next = heap->first;
        if (heap->first != nullptr) heap->first->previous = block;
        heap->first = block;
    }
    platform::HeapBlocks.fetch_add(1, std::memory_order_relaxed);
    return block + 1;
}

BOOL HeapFree(HANDLE handle, DWORD, LPVOID memory) {
    PlatformCall call("HeapFree", ERROR_INVALID_PARAMETER);
    if (call.Fails()) return FALSE;
    if (memory == nullptr) return TRUE;
    Heap* heap = platform::FromHandle(handle);
    Block* block = static_cast<Block*>(memory) - 1;
    if (heap == nullptr || block->heap != heap) return Fail(ERROR_INVALID_PARAMETER);
    {
        const std::lock_guard<std::mutex> holder(heap->mutex);
        (block->previous != nullptr ? block->previous->next : heap->first) = block->next;
        if (block->next != nullptr) block->next->previous = block->previous;
    }
    block->heap = nullptr;
    std::free(block);
    platform::HeapBlocks.fetch_sub(1, std::memory_order_relaxed);
    return TRUE;
}

HANDLE LocalAlloc(UINT flags, SIZE_T size) {
    PlatformCall call("LocalAlloc", ERROR_NOT_ENOUGH_MEMORY);
    if (call.Fails()) return nullptr;
    // A handle that must be locked before use is not provided.
    if ((flags & LMEM_MOVEABLE) != 0) return Fail<HANDLE>(ERROR_CALL_NOT_IMPLEMENTED, nullptr);
    const SIZE_T whole = size != 0 ? size : 1;
    void* memory = (flags & LMEM_ZEROINIT) != 0 ? std::calloc(1, whole) : std::malloc(whole);
    if (memory == nullptr) return Fail<HANDLE>(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    platform::LocalBlocks.fetch_add(1, std::memory_order_relaxed);
    return memory;
}

HANDLE LocalFree(HANDLE block) {
    PlatformCall call("LocalFree", ERROR_INVALID_HANDLE);
    if (call.Fails()) return block;
    if (block == nullptr) return nullptr;
    std::free(block);
    platform::LocalBlocks.fetch_sub(1, std::memory_order_relaxed);
    return nullptr;
}
