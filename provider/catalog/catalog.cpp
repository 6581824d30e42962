// Reading and releasing the layer's catalog entries, and the counting that lets a clean-up overtake calls
// that are still inside the library: what they use is released by the last of them.
#include "provider/catalog/catalog.h"

#include <cstring>
#include <new>
#include <utility>

#include "provider/catalog/lower_call.h"
#include "provider/catalog/protocol_list.h"
#include "provider/process_state.h"

LspEntry* CatalogEntries = nullptr;
LONG CatalogCount = 0;

namespace {

constexpr SIZE_T kInitialHeapSize = 128000;

/// Of the present catalog; null between clean-up and start-up. Guarded by CatalogLock.
CatalogLifetime* CurrentLifetime = nullptr;

/// Whether an entry is a chain of this layer above something.
bool IsLayerEntry(const WSAPROTOCOL_INFOW& info, DWORD layerBaseId) {
    return info.ProtocolChain.ChainLen >= 2 && info.ProtocolChain.ChainEntries[0] == layerBaseId;
}

DWORD FindLayerBaseId(const ProtocolList& catalog) {
    for (LONG i = 0; i < catalog.Count(); ++i) {
        if (std::memcmp(&catalog[i].ProviderId, &kProviderGuid, sizeof(GUID)) == 0)
            return catalog[i].dwCatalogEntryId;
    }
    return 0;
}

void CopyProtocolInfo(const WSAPROTOCOL_INFOW& from, WSAPROTOCOL_INFOW* to) {
    *to = from;
    to->szProtocol[WSAPROTOCOL_LEN] = 0;
}

void FillEntry(LspEntry* entry, const WSAPROTOCOL_INFOW& info, const ProtocolList& catalog,
               DWORD layerBaseId) {
    new (entry) LspEntry();
    entry->ListLock.Initialize();
    CopyProtocolInfo(info, &entry->LayerProvider);
    const WSAPROTOCOL_INFOW* next = catalog.FindById(info.ProtocolChain.ChainEntries[1]);
    if (next != nullptr) CopyProtocolInfo(*next, &entry->NextProvider);
    entry->LayerBaseId = layerBaseId;
    entry->Lifetime = CurrentLifetime;
}

}  // namespace

bool CreatePrivateHeap() {
    const HANDLE heap = HeapCreate(0, kInitialHeapSize, 0);
    if (heap == nullptr) return false;
    auto* const lifetime =
        static_cast<CatalogLifetime*>(HeapAlloc(heap, HEAP_ZERO_MEMORY, sizeof(CatalogLifetime)));
    if (lifetime == nullptr) {
        HeapDestroy(heap);
        return false;
    }
    lifetime->Heap = heap;
    lifetime->Holders = 1;
    const Locker lock(CatalogLock);
    CurrentLifetime = lifetime;
    PrivateHeap = heap;
    return true;
}

bool EnumerateLspCatalog(LspEntry** array, LONG* count, LPINT error) {
    *array = nullptr;
    *count = 0;
    const ProtocolList catalog(PrivateHeap, error);
    if (!catalog) return false;

    const DWORD layerBaseId = FindLayerBaseId(catalog);
    LONG found = 0;
    for (LONG i = 0; i < catalog.Count(); ++i)
        found += IsLayerEntry(catalog[i], layerBaseId) ? 1 : 0;

    const SIZE_T size = static_cast<SIZE_T>(found > 0 ? found : 1) * sizeof(LspEntry);
    auto* const entries = static_cast<LspEntry*>(HeapAlloc(PrivateHeap, HEAP_ZERO_MEMORY, size));
    if (entries == nullptr) {
        *error = WSAENOBUFS;
        return false;
    }
    LspEntry* entry = entries;
    for (LONG i = 0; i < catalog.Count(); ++i) {
        if (IsLayerEntry(catalog[i], layerBaseId)) FillEntry(entry++, catalog[i], catalog, layerBaseId);
    }
    CurrentLifetime->Entries = *array = entries;
    CurrentLifetime->Count = *count = found;
    return true;
}

void CleanUpLowerProvider(LspEntry* entry, bool detaching, LPINT error) {
    if (detaching && entry->LowerIsLayered()) return;
    while (entry->LowerStartupCount > 0) {
        entry->LowerStartupCount.Decrement();
        if (entry->LowerProcedures.lpWSPCleanup == nullptr) continue;
        CallLower(entry, SOCKET_ERROR, error,
                  [&]() noexcept { return entry->LowerProcedures.lpWSPCleanup(error); });
    }
}

CatalogLifetime* DetachCatalog() {
    CatalogEntries = nullptr;
    CatalogCount = 0;
    PrivateHeap = nullptr;
    return std::exchange(CurrentLifetime, nullptr);
}

bool ReleaseCatalogLifetime(CatalogLifetime* lifetime) {
    if (lifetime == nullptr) return true;
    if (lifetime->Holders.Decrement() > 0) return false;
    for (LONG i = 0; i < lifetime->Count; ++i) {
        LspEntry& entry = lifetime->Entries[i];
        entry.ListLock.Delete();
        if (entry.Module != nullptr) FreeLibrary(entry.Module);
    }
    HeapDestroy(lifetime->Heap);
    return true;
}

void HoldCatalogLifetime(CatalogLifetime* lifetime) {
    lifetime->Holders.Increment();
}

void CatalogHold::Take() {
    lifetime_ = CurrentLifetime;
    if (lifetime_ != nullptr) HoldCatalogLifetime(lifetime_);
}
