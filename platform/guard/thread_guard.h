// What a native thread keeps for its guarded calls, and how it gives that back when it ends.
#pragma once

namespace platform {

/// The calling thread has left all its guarded calls without returning from them.
void DropGuards() noexcept;

/// Gives the calling thread's alternate signal stack back, if the guard made it. Called when the thread ends;
/// the next guarded call makes it anew.
void ReleaseSignalStack() noexcept;

}  // namespace platform
