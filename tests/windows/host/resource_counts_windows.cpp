// The counts that Windows allows: objects and heap blocks that the modules under test made and have not given
// back, sockets that the host knows, and modules beside the system's. TLS slots and critical sections are
// left out: the runtime library that is linked into every module keeps some of its own.
#include <windows.h>

#include <map>
#include <mutex>

#include "platform/system/certificates.h"
#include "platform/testing/resource_counts.h"
#include "platform/winsock/socket_table.h"
#include "tests/windows/host/resource_tracking.h"
#include "tests/windows/host/routing.h"
#include "tests/windows/host/scripted_system.h"

namespace platform {

namespace {

constexpr SOCKET kHighestSocket = 0x40000;

struct Tracked {
    std::mutex mutex;  // leaf; guards everything here
    std::map<HANDLE, TrackedKind> handles;
    std::map<HANDLE, HANDLE>
        threads;                  // by the handle given out, one of our own that says whether it has ended
    std::map<HANDLE, int> heaps;  // blocks
    int localBlocks = 0;
};

Tracked& TheTracked() {
    static Tracked& tracked = *new Tracked;
    return tracked;
}

/// Whether the calling thread is loading or unloading a module. What is made meanwhile is made by the runtime
/// library of the module, which keeps an event per load for ever.
bool IsLoading() {
    constexpr std::size_t kLoaderLock = sizeof(void*) == 4 ? 0xA0 : 0x110;
    using GetBlock = const char*(NTAPI*)();
    static const auto getBlock = reinterpret_cast<GetBlock>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("ntdll.dll"), "RtlGetCurrentPeb")));
    const char* const block = getBlock();
    const auto* lock = *reinterpret_cast<const CRITICAL_SECTION* const*>(block + kLoaderLock);
    return reinterpret_cast<ULONG_PTR>(lock->OwningThread) == GetCurrentThreadId();
}

/// Threads that have not ended; with the tracking lock held.
int CountRunningThreads(Tracked& tracked) {
    int running = 0;
    for (auto thread = tracked.threads.begin(); thread != tracked.threads.end();) {
        if (WaitForSingleObject(thread->second, 0) == WAIT_TIMEOUT) {
            ++running;
            ++thread;
        } else {
            CloseHandle(thread->second);
            thread = tracked.threads.erase(thread);
        }
    }
    return running;
}

void CountSockets(ResourceCounts* counts) {
    for (SOCKET s = 4; s < kHighestSocket; s += 4) {
        const auto owner = winsock_host::Sockets.Find(s);
        if (owner.provider != nullptr) ++(owner.layered ? counts->layeredSockets : counts->lowerSockets);
    }
}

}  // namespace

HANDLE TrackHandle(HANDLE handle, TrackedKind kind) noexcept {
    if (handle == nullptr || IsLoading()) return handle;
    HANDLE own = nullptr;
    if (kind == TrackedKind::kThread) {
        DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &own, SYNCHRONIZE, FALSE, 0);
    }
    Tracked& tracked = TheTracked();
    const std::lock_guard<std::mutex> lock(tracked.mutex);
    tracked.handles[handle] = kind;
    if (own != nullptr) tracked.threads[own] = own;
    return handle;
}

void ForgetHandle(HANDLE handle) noexcept {
    const std::lock_guard<std::mutex> lock(TheTracked().mutex);
    TheTracked().handles.erase(handle);
}

void TrackHeap(HANDLE heap) noexcept {
    if (heap == nullptr) return;
    const std::lock_guard<std::mutex> lock(TheTracked().mutex);
    TheTracked().heaps[heap] = 0;
}

void ForgetHeap(HANDLE heap) noexcept {
    const std::lock_guard<std::mutex> lock(TheTracked().mutex);
    TheTracked().heaps.erase(heap);
}

void CountHeapBlock(HANDLE heap, int change) noexcept {
    const std::lock_guard<std::mutex> lock(TheTracked().mutex);
    const auto found = TheTracked().heaps.find(heap);
    if (found != TheTracked().heaps.end()) found->second += change;
}

void CountLocalBlock(int change) noexcept {
    const std::lock_guard<std::mutex> lock(TheTracked().mutex);
    TheTracked().localBlocks += change;
}

ResourceCounts CountResources() {
    ResourceCounts counts;
    CountSockets(&counts);
    counts.modules = CountOwnModules();
    counts.registryKeys = CountOpenRegistryKeys();
    counts.cryptObjects = CountCryptObjects();
    Tracked& tracked = TheTracked();
    const std::lock_guard<std::mutex> lock(tracked.mutex);
    for (const auto& [handle, kind] : tracked.handles) {
        counts.events += kind == TrackedKind::kEvent ? 1 : 0;
        counts.threadHandles += kind == TrackedKind::kThread ? 1 : 0;
        counts.completionPorts += kind == TrackedKind::kCompletionPort ? 1 : 0;
    }
    counts.runningThreads = CountRunningThreads(tracked);
    counts.heaps = static_cast<int>(tracked.heaps.size());
    for (const auto& [heap, blocks] : tracked.heaps)
        counts.heapBlocks += blocks;
    counts.localBlocks = tracked.localBlocks;
    return counts;
}

}  // namespace platform
