// See per_io_data.h.
#include "relay/split/per_io_data.h"

#include <new>

#include "messages/buffer_arena.h"

namespace {

constexpr DWORD kMostPooled = 32;

PerIOData* Pool[kMostPooled] QX_GUARDED_BY(PerIODataPoolLock);
DWORD PooledCount QX_GUARDED_BY(PerIODataPoolLock) = 0;

PerIOData* TakeFromPool() {
    const Locker lock(PerIODataPoolLock);
    return PooledCount > 0 ? Pool[--PooledCount] : nullptr;
}

bool PutIntoPool(PerIOData* record) {
    const Locker lock(PerIODataPoolLock);
    if (PooledCount == kMostPooled) return false;
    Pool[PooledCount++] = record;
    return true;
}

}  // namespace

PooledPerIOData AcquirePerIOData(DWORD operation, SOCKET s, DWORD relayIndex) noexcept {
    PooledPerIOData record(TakeFromPool());
    if (record == nullptr) record.reset(new (std::nothrow) PerIOData());
    if (record == nullptr) return nullptr;
    record->Operation = operation;
    record->Socket = s;
    record->RelayIndex = relayIndex;
    return record;
}

void ReleasePerIOData(PerIOData* record) noexcept {
    if (record == nullptr) return;
    record->Request.reset();
    record->Response.reset();
    record->PartialMessage.reset();
    record->MessageBuffers.reset();
    if (!record->BufferIsPartials) ArenaFree(record->Buffer.data);
    *record = PerIOData();
    if (!PutIntoPool(record)) delete record;
}

bool AllocateBuffer(PerIOData* record, DWORD size) noexcept {
    record->Buffer = {size, ArenaAlloc(size)};
    record->BufferSize = size;
    return record->Buffer.data != nullptr;
}

void FreePerIODataPool() noexcept {
    while (PerIOData* const record = TakeFromPool())
        delete record;
}
