// The overlapped manager without a completion port: a single worker makes the lower calls, so that their
// completion routines run on it while it waits alertably. The ends of those that take no routine, the
// extension functions', are waited for elsewhere (event_waiter.h).
#pragma once

#include "provider/overlapped/overlapped_operation.h"

/// Leaves a request to the worker, which the semaphore wakes. Gives the record up.
void QueueForAlertableWorker(OverlappedOperation* operation, HANDLE semaphore);

/// The worker's thread; its argument is the semaphore.
DWORD WINAPI AlertableWorker(LPVOID semaphore);
