#include "bench/messages/counted_allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::uint64_t> Allocations{0};

void* Allocate(std::size_t size) {
    Allocations.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size != 0 ? size : 1);
}

}  // namespace

std::uint64_t CountedAllocations() {
    return Allocations.load(std::memory_order_relaxed);
}

void* operator new(std::size_t size) {
    if (void* memory = Allocate(size)) return memory;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
    return operator new(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
