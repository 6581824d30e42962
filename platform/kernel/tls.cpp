// Thread-local storage slots. Each thread has one block of values, made at its first TlsSetValue; a value
// carries the generation of its slot, so a slot that is given out anew reads as null on every thread.
#include "platform/kernel/tls.h"
#include "platform/kernel/thread_state.h"

#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <mutex>

#include "platform/kernel/fault_points.h"
#include "platform/kernel/last_error.h"

namespace platform {

namespace {

constexpr DWORD kSlots = 1088;  // as many as a Windows process has

struct Slot {
    std::atomic<std::uint32_t> generation{0};  // odd while the slot is in use
};

std::mutex SlotMutex;  // guards giving out and taking back
Slot Slots[kSlots];
std::atomic<int> UsedSlots{0};

}  // namespace

int CountTlsSlots() noexcept {
    return UsedSlots.load(std::memory_order_relaxed);
}

}  // namespace platform

using platform::Fail;
using platform::PlatformCall;

DWORD TlsAlloc() {
    PlatformCall call("TlsAlloc", ERROR_NO_MORE_ITEMS);
    if (call.Fails()) return TLS_OUT_OF_INDEXES;
    const std::lock_guard<std::mutex> holder(platform::SlotMutex);
    for (DWORD index = 0; index < platform::kSlots; ++index) {
        auto& generation = platform::Slots[index].generation;
        if (generation.load(std::memory_order_relaxed) % 2 != 0) continue;
        generation.fetch_add(1, std::memory_order_relaxed);
        platform::UsedSlots.fetch_add(1, std::memory_order_relaxed);
        return index;
    }
    return Fail<DWORD>(ERROR_NO_MORE_ITEMS, TLS_OUT_OF_INDEXES);
}

BOOL TlsFree(DWORD index) {
    PlatformCall call("TlsFree", ERROR_INVALID_PARAMETER);
    if (call.Fails()) return FALSE;
    const std::lock_guard<std::mutex> holder(platform::SlotMutex);
    if (index >= platform::kSlots) return Fail(ERROR_INVALID_PARAMETER);
    auto& generation = platform::Slots[index].generation;
    if (generation.load(std::memory_order_relaxed) % 2 == 0) return Fail(ERROR_INVALID_PARAMETER);
    generation.fetch_add(1, std::memory_order_relaxed);
    platform::UsedSlots.fetch_sub(1, std::memory_order_relaxed);
    return TRUE;
}

LPVOID TlsGetValue(DWORD index) {
    platform::ThreadState& state = platform::CurrentThreadState();
    if (index >= platform::kSlots) return Fail<LPVOID>(ERROR_INVALID_PARAMETER, nullptr);
    state.lastError = ERROR_SUCCESS;
    if (state.tls == nullptr) return nullptr;
    const platform::TlsEntry& entry = state.tls[index];
    return entry.generation == platform::Slots[index].generation.load(std::memory_order_relaxed) ? entry.value
                                                                                                 : nullptr;
}

BOOL TlsSetValue(DWORD index, LPVOID value) {
    PlatformCall call("TlsSetValue", ERROR_NOT_ENOUGH_MEMORY);
    if (call.Fails()) return FALSE;
    if (index >= platform::kSlots) return Fail(ERROR_INVALID_PARAMETER);
    platform::ThreadState& state = platform::CurrentThreadState();
    if (state.tls == nullptr) {
        // Makes sure that somebody frees the block when the thread ends.
        GetCurrentThreadId();
        state.tls =
            static_cast<platform::TlsEntry*>(std::calloc(platform::kSlots, sizeof(platform::TlsEntry)));
        if (state.tls == nullptr) return Fail(ERROR_NOT_ENOUGH_MEMORY);
    }
    state.tls[index] = {value, platform::Slots[index].generation.load(std::memory_order_relaxed)};
    return TRUE;
}
