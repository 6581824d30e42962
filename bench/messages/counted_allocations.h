// A program that links this counts its calls of operator new. In a file of its own: where the compiler sees
// both sides of an allocation it may leave it out.
#pragma once

#include <cstdint>

/// Calls so far, of all threads.
std::uint64_t CountedAllocations();
