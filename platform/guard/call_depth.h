// How deep a thread is in calls of the stand-in, and in calls out of it. A fault skips the ends of the calls
// that it leaves, so the guard puts the depths back. Only the owning thread touches its depths.
#pragma once

namespace platform {

struct CallDepth {
    unsigned calls;       // platform functions under way since the last boundary
    unsigned boundaries;  // calls out of the platform under way
};

#ifdef _WIN32

/// The calling thread's. In the test host's library, so that a base provider beside it counts with the same
/// depths.
CallDepth& CurrentCallDepth() noexcept;

#else

extern __thread CallDepth ThisCallDepth __attribute__((tls_model("initial-exec")));

/// The calling thread's.
inline CallDepth& CurrentCallDepth() noexcept {
    return ThisCallDepth;
}

#endif

}  // namespace platform
