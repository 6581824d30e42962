// The handle table: chunks of slots that are never moved or freed.
#include "platform/kernel/handles.h"

#include <sched.h>

#include <array>
#include <atomic>
#include <mutex>
#include <new>

#include "platform/kernel/last_error.h"
#include "platform/kernel/thread.h"

namespace platform {

namespace {

constexpr std::uint32_t kFirstHandle = 0x1000;
constexpr std::uint32_t kSlotsPerChunk = 1024;
constexpr std::uint32_t kMaxChunks = 1024;
constexpr std::uint32_t kNoSlot = 0xFFFFFFFF;

/// Holds a slot for the few instructions of copying or moving its pointer.
class SpinHolder {
  public:
    explicit SpinHolder(std::atomic_flag& flag) : flag_(flag) {
        while (flag_.test_and_set(std::memory_order_acquire))
            sched_yield();
    }
    ~SpinHolder() { flag_.clear(std::memory_order_release); }
    SpinHolder(const SpinHolder&) = delete;
    SpinHolder& operator=(const SpinHolder&) = delete;

  private:
    std::atomic_flag& flag_;
};

}  // namespace

class HandleTable {
  public:
    HANDLE Open(std::shared_ptr<Object> object) noexcept;
    std::shared_ptr<Object> Reference(HANDLE handle) noexcept;
    bool Close(HANDLE handle) noexcept;
    int Count(ObjectKind kind) const noexcept {
        return counts_[static_cast<std::size_t>(kind)].load(std::memory_order_relaxed);
    }

  private:
    /// Alone on its cache line: every use of a handle writes `busy`, and threads have neighbouring handles.
    struct alignas(64) Slot {
        std::atomic_flag busy = ATOMIC_FLAG_INIT;
        std::shared_ptr<Object> object;
        std::uint32_t nextFree = kNoSlot;  // guarded by allocation_
    };

    Slot* Find(HANDLE handle) noexcept;
    bool Grow() noexcept;

    std::mutex allocation_;  // guards the free list, openHandles_ of all objects, and growing
    std::uint32_t firstFree_ = kNoSlot;
    std::uint32_t chunkCount_ = 0;
    std::array<std::atomic<Slot*>, kMaxChunks> chunks_{};
    std::array<std::atomic<int>, static_cast<std::size_t>(ObjectKind::kCount)> counts_{};
};

HandleTable::Slot* HandleTable::Find(HANDLE handle) noexcept {
    const auto value = reinterpret_cast<ULONG_PTR>(handle);
    if (value < kFirstHandle || (value & 3) != 0) return nullptr;
    const ULONG_PTR index = (value - kFirstHandle) / 4;
    if (index >= static_cast<ULONG_PTR>(kSlotsPerChunk) * kMaxChunks) return nullptr;
    Slot* chunk = chunks_[index / kSlotsPerChunk].load(std::memory_order_acquire);
    return chunk == nullptr ? nullptr : &chunk[index % kSlotsPerChunk];
}

bool HandleTable::Grow() noexcept {
    if (chunkCount_ == kMaxChunks) return false;
    Slot* chunk = new (std::nothrow) Slot[kSlotsPerChunk];
    if (chunk == nullptr) return false;
    const std::uint32_t first = chunkCount_ * kSlotsPerChunk;
    for (std::uint32_t i = kSlotsPerChunk; i-- > 0;) {
        chunk[i].nextFree = firstFree_;
        firstFree_ = first + i;
    }
    chunks_[chunkCount_++].store(chunk, std::memory_order_release);
    return true;
}

HANDLE HandleTable::Open(std::shared_ptr<Object> object) noexcept {
    const std::size_t kind = static_cast<std::size_t>(object->kind());
    std::uint32_t index;
    Slot* slot;
    {
        const std::lock_guard<std::mutex> holder(allocation_);
        if (firstFree_ == kNoSlot && !Grow()) return nullptr;
        index = firstFree_;
        slot = &chunks_[index / kSlotsPerChunk].load(std::memory_order_relaxed)[index % kSlotsPerChunk];
        firstFree_ = slot->nextFree;
        ++object->openHandles_;
    }
    {
        const SpinHolder holder(slot->busy);
        slot->object = std::move(object);
    }
    counts_[kind].fetch_add(1, std::memory_order_relaxed);
    return reinterpret_cast<HANDLE>(kFirstHandle + static_cast<ULONG_PTR>(index) * 4);
}

std::shared_ptr<Object> HandleTable::Reference(HANDLE handle) noexcept {
    Slot* slot = Find(handle);
    if (slot == nullptr) return nullptr;
    const SpinHolder holder(slot->busy);
    return slot->object;
}

bool HandleTable::Close(HANDLE handle) noexcept {
    Slot* slot = Find(handle);
    if (slot == nullptr) return false;
    std::shared_ptr<Object> object;
    {
        const SpinHolder holder(slot->busy);
        object.swap(slot->object);
    }
    if (object == nullptr) return false;
    bool last;
    {
        const std::lock_guard<std::mutex> holder(allocation_);
        last = --object->openHandles_ == 0;
        slot->nextFree = firstFree_;
        firstFree_ = static_cast<std::uint32_t>((reinterpret_cast<ULONG_PTR>(handle) - kFirstHandle) / 4);
    }
    counts_[static_cast<std::size_t>(object->kind())].fetch_sub(1, std::memory_order_relaxed);
    if (last) object->OnLastHandleClosed();
    return true;
}

namespace {

// Never destroyed: threads use handles while the process ends.
HandleTable& TheHandles() {
    static HandleTable* const table = new HandleTable;
    return *table;
}

}  // namespace

HANDLE OpenHandle(std::shared_ptr<Object> object) noexcept {
    const HANDLE handle = TheHandles().Open(std::move(object));
    return handle != nullptr ? handle : Fail<HANDLE>(ERROR_NOT_ENOUGH_MEMORY, nullptr);
}

std::shared_ptr<Object> ReferenceHandle(HANDLE handle) noexcept {
    if (handle == GetCurrentThread()) return CurrentThread().shared_from_this();
    return TheHandles().Reference(handle);
}

bool CloseOpenHandle(HANDLE handle) noexcept {
    return TheHandles().Close(handle);
}

int CountHandles(ObjectKind kind) noexcept {
    return TheHandles().Count(kind);
}

}  // namespace platform
