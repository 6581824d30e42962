// The one instance of each lock of the process.
#include "base/process_locks.h"

namespace qx {
CriticalSection GlobalLock;
}
CriticalSection OverlappedLock;
CriticalSection PerIODataPoolLock;
CriticalSection RelayIndexLock;
CriticalSection PendingResponseLock;
CriticalSection CatalogLock;
CriticalSection IdentityLock;
CriticalSection SocketCreateCloseLock;

namespace {

CriticalSection* const kLocks[] = {&qx::GlobalLock, &OverlappedLock,       &PerIODataPoolLock,
                                   &RelayIndexLock, &PendingResponseLock,  &CatalogLock,
                                   &IdentityLock,   &SocketCreateCloseLock};

}  // namespace

void InitializeLocks() {
    for (CriticalSection* lock : kLocks)
        lock->Initialize();
}

void DeleteLocks() {
    for (CriticalSection* lock : kLocks)
        lock->Delete();
}
