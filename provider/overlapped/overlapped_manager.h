// Carries out the application's overlapped requests: the lower provider is given a record of the layer's own,
// so that the layer sees each completion before the application does.
//
// With a completion port, the lower call is made on the application's thread and one worker per processor
// takes the completions (port_worker.h). Without one (it could not be created), a single worker makes the
// lower calls itself (alertable_worker.h). A lower socket that somebody else has put on a port of theirs is
// called on the application's thread too, and an event tells the end (event_waiter.h). OverlappedLock guards
// the lists and the manager's handles; it is taken inside a context's lock, never outside.
#pragma once

#include "provider/overlapped/caller_record.h"
#include "provider/overlapped/overlapped_operation.h"

/// Starts the workers. 0, or WSAEPROVIDERFAILEDINIT when one could not be started: those that could serve
/// nonetheless.
int StartOverlappedManager();

/// Cancels what is under way and ends the workers, waiting for at most 5 seconds: what they complete
/// meanwhile is reported to the application. They take GlobalLock, so the caller must not hold it while there
/// are requests. False when a worker has not ended: it may still execute the library's code.
bool StopOverlappedManager();

/// Returns the records of the free list to the private heap. The manager is stopped.
void FreeOverlappedRecords();

/// A record for a request on `context` (referenced by the caller), counted as outstanding, with the
/// application's own marked as under way; the caller stores the type's arguments. Null with `*error`.
OverlappedOperation* PrepareOverlappedOperation(SocketContext* context, OverlappedType type,
                                                const CallerNotice& notice, const CallerBuffers& buffers,
                                                LPINT error);

/// Hands the record to the lower provider and gives it up. Error 0 with the result of a request that ended
/// inside the call (it has been told as well), WSA_IO_PENDING, or a Winsock error: nothing else is told then.
Outcome QueueOverlappedOperation(OverlappedOperation* operation, SocketContext* context);
