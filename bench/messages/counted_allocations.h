// A program that links this, and replaced_new.cpp, counts its calls of operator new.
#pragma once

#include <cstdint>

/// Calls so far, of all threads.
std::uint64_t CountedAllocations();
