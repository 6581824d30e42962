// What the stand-in keeps per thread, in one block of static thread-local memory, so that the hot paths (last
// error, call depth, TLS slots, guards) are plain loads. Only the owning thread touches its block.
#pragma once

#include <windows.h>

#include <cstdint>

namespace platform {

class ThreadObject;
struct GuardFrame;

struct TlsEntry {
    void* value;
    std::uint32_t generation;  // of the slot when the value was stored; a slot given out anew reads as null
};

struct ThreadState {
    DWORD lastError;
    unsigned callDepth;      // platform functions under way since the last boundary
    unsigned boundaryDepth;  // calls out of the platform under way
    ThreadObject* object;    // made at first need, see thread.h
    GuardFrame* guard;       // innermost guarded call
    TlsEntry* tls;           // the thread's TLS values, made at the first TlsSetValue
    bool signalStackReady;
};

extern __thread ThreadState ThisThreadState __attribute__((tls_model("initial-exec")));

inline ThreadState& CurrentThreadState() noexcept {
    return ThisThreadState;
}

}  // namespace platform
