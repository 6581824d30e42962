// See counted_allocations.h.
#include "bench/messages/counted_allocations.h"

#include <atomic>
#include <cstdlib>

#include "tests/support/replaced_new.h"

namespace {

std::atomic<std::uint64_t> Allocations{0};

}  // namespace

std::uint64_t CountedAllocations() {
    return Allocations.load(std::memory_order_relaxed);
}

void* AllocateForNew(std::size_t size) noexcept {
    Allocations.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size != 0 ? size : 1);
}

void ReleaseFromDelete(void* memory) noexcept {
    std::free(memory);
}
