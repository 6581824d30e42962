// The Windows build's part of what the stand-in keeps per thread: the last error is the system's, and the
// depths that fault points count with are the host library's, one pair per thread. Only the owning thread
// touches its state.
#pragma once

#include <windows.h>

namespace platform {

class ThreadObject;

/// Assigning sets the thread's last error.
struct LastErrorSlot {
    LastErrorSlot& operator=(DWORD error) {
        SetLastError(error);
        return *this;
    }
};

struct ThreadState {
    LastErrorSlot lastError;
    unsigned callDepth;      // platform functions under way since the last boundary
    unsigned boundaryDepth;  // calls out of the platform under way
    ThreadObject* object;    // always null: threads are the system's
};

extern __thread ThreadState ThisThreadState;

/// In the host library, so that a base provider beside it counts with the same depths.
ThreadState& CurrentThreadState() noexcept;

}  // namespace platform
