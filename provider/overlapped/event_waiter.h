// Lower requests whose end only an event tells: of lower functions that take no completion routine where
// there is no port, and of lower sockets that are on somebody else's port. Threads of the layer wait for
// them, each for as many as one thread can; they are started when they are needed and end with the manager.
//
// OverlappedLock guards the list of the threads and what is handed over to them; nothing is waited for with
// it held.
#pragma once

#include "provider/overlapped/caller_record.h"
#include "provider/overlapped/overlapped_operation.h"
#include "provider/overlapped/worker_thread.h"

struct EventWaiter;

/// Makes the lower call, which does not wait for the request's end. 0 with the result of a request that ended
/// inside, which the application has been told, and WSA_IO_PENDING give the record up; with any other error
/// nothing will come from below, and the caller ends it.
Outcome ExecuteByEvent(OverlappedOperation* operation, SocketContext* context);

/// Tells all threads to end what they wait for, and themselves. The manager has stopped and its requests are
/// cancelled.
EventWaiter* TellEventWaitersToEnd();

/// Waits until they have. False when one has not.
bool AwaitEventWaiters(EventWaiter* waiters, const StopDeadline& deadline);
