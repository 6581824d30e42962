// A program that links replaced_new.cpp defines these two, and every operator new and delete of it goes
// through them. The operators are in a file of their own: where the compiler sees both sides of an allocation
// it may leave it out.
#pragma once

#include <cstddef>

/// Memory for operator new; null makes it throw, or return null where it must not throw. Any thread may call.
void* AllocateForNew(std::size_t size) noexcept;

/// Takes the memory back; null is none.
void ReleaseFromDelete(void* memory) noexcept;
