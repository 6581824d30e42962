// Numbers of heaps and blocks in use.
#pragma once

namespace platform {

int CountHeaps() noexcept;
/// Blocks of all private heaps.
int CountHeapBlocks() noexcept;
/// Blocks of LocalAlloc.
int CountLocalBlocks() noexcept;

}  // namespace platform
