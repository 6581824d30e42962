// What the kernel keeps per thread, in one block of static thread-local memory, so that the hot paths (last
// error, identity, TLS slots) are plain loads. Only the owning thread touches its block.
#pragma once

#include <windows.h>

#include <cstdint>

namespace platform {

class ThreadObject;

struct TlsEntry {
    void* value;
    std::uint32_t generation;  // of the slot when the value was stored; a slot given out anew reads as null
};

struct ThreadState {
    DWORD lastError;
    ThreadObject* object;  // made at first need, see thread.h
    TlsEntry* tls;         // the thread's TLS values, made at the first TlsSetValue
};

extern __thread ThreadState ThisThreadState __attribute__((tls_model("initial-exec")));

inline ThreadState& CurrentThreadState() noexcept {
    return ThisThreadState;
}

}  // namespace platform
