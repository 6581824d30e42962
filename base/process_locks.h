// The critical sections of the process, which exist from library attach to detach. A thread that holds one
// may take those that are declared to come after it; docs/architecture.md shows the whole order, with the
// locks of single objects.
#pragma once

#include "base/locker.h"

/// Held around every creation and every close of a socket of the layer's own. That goes through Winsock and
/// comes back into the layer, which takes GlobalLock: so no such socket is ever made or closed with
/// GlobalLock or a lock that comes after it held.
extern CriticalSection SocketCreateCloseLock;

namespace qx {
/// Held for the whole of a start-up and a clean-up, and around every lookup of a context and change of its
/// reference count. In a namespace because <windows.h> declares a function of that name.
extern CriticalSection GlobalLock QX_ACQUIRED_AFTER(SocketCreateCloseLock);
}  // namespace qx
/// Guards the array of catalog entries, its count and its lifetime.
extern CriticalSection CatalogLock QX_ACQUIRED_AFTER(qx::GlobalLock);
/// Guards the overlapped manager's lists and handles.
extern CriticalSection OverlappedLock;

// Leaves: nothing is taken, called or waited for while one is held.

/// Guards the waiters for analyzer answers.
extern CriticalSection PendingResponseLock;
/// Guards the relay's pool of operation records.
extern CriticalSection PerIODataPoolLock;
/// Guards the counter behind relay indexes.
extern CriticalSection RelayIndexLock;
/// Guards the process's identity texts; held only for a copy.
extern CriticalSection IdentityLock;

/// Initialises the eight sections at attach, in their fixed order.
void InitializeLocks();

/// Deletes them at detach, in the same order. No thread may be inside the library's operations.
void DeleteLocks();
