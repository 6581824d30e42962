// What the overlapped manager's workers wait for. One of the two is set while the manager runs; both are null
// when it has stopped. Start and stop write them under OverlappedLock, everybody else only reads.
#pragma once

#include <windows.h>

#include "base/atomic.h"

/// Completions arrive here.
extern Atomic<HANDLE> ManagerPort;
/// Without a port: counts the requests that wait for the alertable worker.
extern Atomic<HANDLE> ManagerSemaphore;
