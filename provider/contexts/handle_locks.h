// The locks of groups of handles. Finding the context of a handle and counting its users takes the lock of
// the handle's group alone, so that threads with sockets of their own don't wait for each other. A context
// ends with GlobalLock and then its group's lock held: nobody finds it meanwhile.
#pragma once

#include <winsock2.h>

#include "base/process_locks.h"

/// The lock of one group; alone on its cache line.
struct alignas(64) HandleGroup {
    CriticalSection Lock QX_ACQUIRED_AFTER(CatalogLock, qx::GlobalLock);
};

/// The group of a handle; every value has one.
HandleGroup& GroupOf(SOCKET s);

/// Holds the locks of all groups for a scope: what every lookup goes by changes.
class AllHandleGroups {
  public:
    AllHandleGroups();
    ~AllHandleGroups();
    AllHandleGroups(const AllHandleGroups&) = delete;
    AllHandleGroups& operator=(const AllHandleGroups&) = delete;
};

/// At attach and detach, as InitializeLocks and DeleteLocks.
void InitializeHandleLocks();
void DeleteHandleLocks();
