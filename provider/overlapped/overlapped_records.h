// The records of the overlapped manager: a pool that gives each out again and again, the list of those in
// use, and the queue of those that wait for the alertable worker.
//
// OverlappedLock guards all three. A record in use holds the catalog's lifetime, so that what the lower
// provider still writes into it stays memory of ours even when a clean-up overtook it.
#pragma once

#include "base/thread_annotations.h"
#include "provider/overlapped/overlapped_operation.h"
#include "provider/process_state.h"

/// A zero-filled record with one hold, counted in the context's OutstandingAsync. Null with `*error`
/// WSAENOTSOCK when the socket is being closed, WSAENOBUFS when the context is being freed or there is no
/// memory. Takes the context's lock and, inside it, OverlappedLock.
OverlappedOperation* TakeOverlappedRecord(SocketContext* context, LPINT error);

/// Counts a request in a context's OutstandingAsync, and uncounts it. Both take the context's lock.
void CountRequest(SocketContext* context);
void UncountRequest(SocketContext* context);

/// Empties the free list: what an earlier manager left there lay in a heap that is gone.
void ForgetFreeRecords() QX_REQUIRES(OverlappedLock);

/// Asks the lower providers to end every request in use, by cancelling it.
void CancelOverlappedRecords();

/// Appends a record to the requests that wait for the alertable worker; takes the oldest of them, or null.
void AppendPendingRecord(OverlappedOperation* operation);
OverlappedOperation* TakePendingRecord();
