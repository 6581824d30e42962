// Threads that wait for the analyzer while it judges what overlapped receives have brought, so that no worker
// does: a worker leaves the end of such a receive to them. One socket's ends are told one after the other, in
// the order in which they came; those of another socket have another thread.
//
// A thread that takes an end up sees to it that another one is free, so one always is, up to the most that
// there may be; beyond those, sockets take turns. What is free for ten seconds ends, but for one. The first
// is started by the application's call that makes a receive: a worker starts none, as that can wait for the
// loader's lock.
//
// OverlappedLock guards the threads, the sockets that are ready for one, and the ends that wait; nothing is
// waited for, looked at or told with it held. An end that waits keeps its record and the reference on its
// context; a socket with such ends keeps one more until the last of them has been told.
#pragma once

#include "provider/overlapped/overlapped_operation.h"
#include "provider/overlapped/worker_thread.h"

/// Has a thread free for a receive that is about to be made on the socket and may have to be looked at. The
/// caller is inside a call of the application.
void PrepareToLook(const SocketContext* context);

/// Leaves an end to the threads when its data is to be looked at, or when it is behind one that is. True when
/// record and reference have been given up.
bool LeaveToLookThread(OverlappedOperation* operation, SocketContext* context, const Outcome& outcome);

/// Ends the looks that are under way, and all waits for the analyzer on their sockets. The manager has
/// stopped: what is told from now on is looked at no more.
void InterruptLooks();

/// Ends the threads when they have told all ends. Nobody leaves ends to them any more. False when one has not
/// ended.
bool EndLookThreads(const StopDeadline& deadline);
