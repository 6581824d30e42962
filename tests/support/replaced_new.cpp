// Every form of new and delete, on the test's allocation.
#include "tests/support/replaced_new.h"

#include <new>

void* operator new(std::size_t size) {
    if (void* memory = AllocateForNew(size)) return memory;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
    return operator new(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return AllocateForNew(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return AllocateForNew(size);
}
void operator delete(void* memory) noexcept {
    ReleaseFromDelete(memory);
}
void operator delete[](void* memory) noexcept {
    ReleaseFromDelete(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    ReleaseFromDelete(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    ReleaseFromDelete(memory);
}
