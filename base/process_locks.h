// The critical sections of the process, which exist from library attach to detach. docs/architecture.md has
// the order in which they may be nested, with the locks of single objects.
//
// Creating or closing a socket of the layer's own takes SocketCreateCloseLock and comes back into the layer,
// which takes GlobalLock: so no such socket is ever made or closed with GlobalLock or a lock to the right of
// it held.
#pragma once

#include "base/locker.h"

namespace qx {
/// Held for the whole of a start-up and a clean-up, and around every lookup of a context and change of its
/// reference count. In a namespace because <windows.h> declares a function of that name.
extern CriticalSection GlobalLock;
}  // namespace qx
/// Guards the overlapped manager's lists and handles.
extern CriticalSection OverlappedLock;
/// Guards the relay's pool of operation records. Leaf.
extern CriticalSection PerIODataPoolLock;
/// Guards the counter behind relay indexes. Leaf.
extern CriticalSection RelayIndexLock;
/// Guards the waiters for analyzer answers. Leaf.
extern CriticalSection PendingResponseLock;
/// Guards the array of catalog entries, its count and its lifetime.
extern CriticalSection CatalogLock;
/// Guards the process's identity texts; held only for a copy. Leaf.
extern CriticalSection IdentityLock;
/// Held around every creation and every close of a socket of the layer's own.
extern CriticalSection SocketCreateCloseLock;

/// Initialises the eight sections at attach, in their fixed order.
void InitializeLocks();

/// Deletes them at detach, in the same order. No thread may be inside the library's operations.
void DeleteLocks();
