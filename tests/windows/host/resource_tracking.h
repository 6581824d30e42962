// What the modules under test have made of the system's objects: their calls are routed here on the way to
// the system. Any thread may call; a leaf lock.
#pragma once

#include <windows.h>

namespace platform {

enum class TrackedKind { kEvent, kThread, kCompletionPort };

/// Takes note of a new handle, if it is one, and gives it back.
HANDLE TrackHandle(HANDLE handle, TrackedKind kind) noexcept;

/// The handle is about to be closed, by whomever.
void ForgetHandle(HANDLE handle) noexcept;

/// The same for private heaps, their blocks, and LocalAlloc's. Blocks of other heaps are not counted.
void TrackHeap(HANDLE heap) noexcept;
void ForgetHeap(HANDLE heap) noexcept;
void CountHeapBlock(HANDLE heap, int change) noexcept;
void CountLocalBlock(int change) noexcept;

}  // namespace platform
