#include "platform/preload/descriptor_table.h"

#include <unistd.h>

#include <mutex>
#include <new>

#include "platform/preload/engine.h"
#include "platform/preload/engine_call.h"
#include "platform/preload/real_calls.h"

namespace preload {
namespace {

/// The kernel's own limit on descriptors, as it comes; one beyond it is left alone.
constexpr int kDescriptors = 1 << 20;
constexpr std::uintptr_t kInternal = 1;

std::atomic<std::uintptr_t> Slots[kDescriptors];  // 0, kInternal, or a record
std::atomic<int> Highest{-1};

std::atomic_flag FreeListLock = ATOMIC_FLAG_INIT;  // held for a few instructions, never by a signal handler
SocketRecord* FreeList = nullptr;
std::atomic<SocketRecord*> Deferred{nullptr};  // to be ended, linked like the free ones

std::atomic<std::uintptr_t>* SlotOf(int descriptor) {
    return descriptor >= 0 && descriptor < kDescriptors ? &Slots[descriptor] : nullptr;
}

void NoteHighest(int descriptor) {
    int highest = Highest.load();
    while (highest < descriptor && !Highest.compare_exchange_weak(highest, descriptor)) {
    }
}

class FreeListHolder {
  public:
    FreeListHolder() {
        while (FreeListLock.test_and_set(std::memory_order_acquire)) {
        }
    }
    ~FreeListHolder() { FreeListLock.clear(std::memory_order_release); }
};

void End(SocketRecord* record) {
    CloseWinsockSocket(record->socket);
    const FreeListHolder holder;
    record->nextFree = FreeList;
    FreeList = record;
}

void EndDeferred() {
    SocketRecord* record = Deferred.load() != nullptr ? Deferred.exchange(nullptr) : nullptr;
    while (record != nullptr) {
        SocketRecord* const next = record->nextFree;
        End(record);
        record = next;
    }
}

}  // namespace

SocketRecord* NewRecord() {
    EndDeferred();
    SocketRecord* record = nullptr;
    {
        const FreeListHolder holder;
        record = FreeList;
        if (record != nullptr) FreeList = record->nextFree;
    }
    if (record == nullptr) record = new (std::nothrow) SocketRecord;
    if (record == nullptr) return nullptr;
    record->nonBlocking.store(false);
    record->connecting.store(false);
    record->keepsControl.store(false);
    record->receiveTimeout.store(0);
    record->sendTimeout.store(0);
    record->references.store(1);
    return record;
}

void Release(SocketRecord* record) {
    if (record->references.fetch_sub(1) != 1) return;
    if (!IsInside()) {
        End(record);
        return;
    }
    record->nextFree = Deferred.load();
    while (!Deferred.compare_exchange_weak(record->nextFree, record)) {
    }
}

void Enter(int descriptor, SocketRecord* record) {
    std::atomic<std::uintptr_t>* const slot = SlotOf(descriptor);
    if (slot == nullptr) {
        Release(record);
        return;
    }
    NoteHighest(descriptor);
    slot->store(reinterpret_cast<std::uintptr_t>(record));
}

SocketRecord* Leave(int descriptor) {
    std::atomic<std::uintptr_t>* const slot = SlotOf(descriptor);
    if (slot == nullptr) return nullptr;
    const std::uintptr_t word = slot->exchange(0);
    return word > kInternal ? reinterpret_cast<SocketRecord*>(word) : nullptr;
}

void MarkInternal(int descriptor) {
    std::atomic<std::uintptr_t>* const slot = SlotOf(descriptor);
    if (slot == nullptr) return;
    NoteHighest(descriptor);
    slot->store(kInternal);
}

void UnmarkInternal(int descriptor) {
    std::atomic<std::uintptr_t>* const slot = SlotOf(descriptor);
    std::uintptr_t internal = kInternal;
    if (slot != nullptr) slot->compare_exchange_strong(internal, 0);
}

bool IsInternal(int descriptor) {
    const std::atomic<std::uintptr_t>* const slot = SlotOf(descriptor);
    return slot != nullptr && slot->load() == kInternal;
}

bool IsKnown(int descriptor) {
    const std::atomic<std::uintptr_t>* const slot = SlotOf(descriptor);
    return slot == nullptr || slot->load() != 0;
}

int HighestKnown() {
    return Highest.load();
}

Use::Use(int descriptor) {
    std::atomic<std::uintptr_t>* const slot = SlotOf(descriptor);
    if (slot == nullptr) return;
    for (;;) {
        const std::uintptr_t word = slot->load(std::memory_order_acquire);
        if (word <= kInternal) return;
        auto* const record = reinterpret_cast<SocketRecord*>(word);
        unsigned references = record->references.load();
        while (references != 0 && !record->references.compare_exchange_weak(references, references + 1)) {
        }
        if (references == 0) continue;
        // Given back and taken anew meanwhile, it may be another socket's.
        if (slot->load() == word) {
            record_ = record;
            return;
        }
        Release(record);
    }
}

void ForgetAfterFork() {
    for (int descriptor = 0; descriptor <= HighestKnown(); ++descriptor) {
        const std::uintptr_t word = Slots[descriptor].exchange(0);
        if (word == kInternal) Real().close(descriptor);
    }
    FreeListLock.clear();
    Deferred.store(nullptr);
    Highest.store(-1);
}

}  // namespace preload
