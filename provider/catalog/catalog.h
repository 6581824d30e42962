// The layer's part of the Winsock catalog: reading it, choosing an entry, starting lower providers, releasing
// it.
//
// The array and its count are guarded by CatalogLock. A call that uses an entry without holding a reference
// on one of its contexts keeps a CatalogHold instead: a clean-up on another thread then leaves the entry's
// memory, its list lock and the lower library's code in place until the hold ends.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <windows.h>

#include "base/atomic.h"
#include "base/locker.h"
#include "provider/catalog/lsp_entry.h"
#include "provider/process_state.h"

/// What one start-up builds and the last of its users destroys: the private heap, the entries in it and the
/// lower libraries. Lies in that heap itself.
struct CatalogLifetime {
    HANDLE Heap;
    LspEntry* Entries;
    LONG Count;
    Atomic<LONG> Holders;  ///< the catalog itself, each CatalogHold, each abandoned context
};

extern LspEntry* CatalogEntries QX_GUARDED_BY(CatalogLock);
extern LONG CatalogCount QX_GUARDED_BY(CatalogLock);

/// Makes the private heap and the record of its life inside it. False when there is no memory. Takes
/// CatalogLock.
bool CreatePrivateHeap();

/// Reads the layer's entries from the Winsock catalog into the private heap. True, or false with `*error`
/// WSAENOBUFS or the catalog's own error; the outputs are then null and 0. Call with CatalogLock held.
bool EnumerateLspCatalog(LspEntry** array, LONG* count, LPINT error);

/// The entry that serves `info`, or null: by its own id, then by the chain above it, then by address family,
/// type, protocol and service flags, then by the chains that the catalog holds now. Call with CatalogLock
/// held.
LspEntry* FindMatchingLspEntryForProtocolInfo(const WSAPROTOCOL_INFOW* info, LspEntry* array, LONG count);

/// Loads and starts the lower provider of `entry`. 0, or SOCKET_ERROR with `*error`; the entry is then
/// unstarted and can be tried again. Call with GlobalLock held.
int InitializeProvider(LspEntry* entry, WORD version, LPWSAPROTOCOL_INFOW info, const WSPUPCALLTABLE& upcalls,
                       LPINT error);

/// Starts the lower provider at version 2.2 unless it is started. Takes GlobalLock. As InitializeProvider.
int EnsureProviderStarted(LspEntry* entry, LPWSAPROTOCOL_INFOW info, LPINT error);

/// Calls the lower clean-up as often as the lower provider was started. While detaching nothing is called
/// below a layered lower provider, which may be gone already. Call with GlobalLock held.
void CleanUpLowerProvider(LspEntry* entry, bool detaching, LPINT error);

/// Takes the entries and the private heap out of everybody's sight. Their lifetime, for the caller to
/// release.
CatalogLifetime* DetachCatalog() QX_REQUIRES(CatalogLock);

/// Whether the service flags are the same, apart from the one that says whether handles are file handles.
bool SameServiceFlags(DWORD first, DWORD second);

/// Adds a holder; the caller knows that there is one already, or holds CatalogLock.
void HoldCatalogLifetime(CatalogLifetime* lifetime);

/// Drops one holder; the last one frees the lower libraries and destroys the heap. True when that was the
/// last, or for null.
bool ReleaseCatalogLifetime(CatalogLifetime* lifetime);

/// Keeps the catalog's entries valid for a scope, from the choice of one on.
class CatalogHold {
  public:
    CatalogHold() = default;

    /// To be called once, where the entry is chosen: without leaving the lock in between, so that the hold is
    /// on the catalog that the entry is of. Holds nothing when there is no catalog.
    void Take() QX_REQUIRES(CatalogLock);
    ~CatalogHold() { ReleaseCatalogLifetime(lifetime_); }
    CatalogHold(const CatalogHold&) = delete;
    CatalogHold& operator=(const CatalogHold&) = delete;

  private:
    CatalogLifetime* lifetime_ = nullptr;
};
