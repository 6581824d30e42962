// The alternate signal stack of a guarded thread: the handler needs one after a stack overflow.
#pragma once

namespace platform {

/// Gives the calling thread's alternate stack back, if the guard made it. Called when the thread ends.
void ReleaseSignalStack() noexcept;

}  // namespace platform
