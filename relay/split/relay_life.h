// Starting and stopping the relay. What carries split connections is made by the first of them.
#pragma once

#include "base/atomic.h"

/// Tells the relay worker that no connection is served any more.
extern Atomic<bool> RelayShutdown;
/// And that nothing more will be posted.
extern Atomic<bool> RelaySocketsClosed;

/// Lets connections be split again after a stop. Called at attach and by the first start-up.
void StartRelay();

/// Ends all split connections, what the relay has started, and everybody's wait for an answer that the relay
/// worker was to read. Closing sockets goes through Winsock back into the layer: no lock may be held. False
/// when the worker, or a lower provider with a request of the relay's, has not come to an end in time: the
/// library's code and the memory of the requests are still in use.
bool StopRelay();

/// Frees what the relay keeps for the life of the library, at detach, when it has been stopped and no other
/// thread is left in it.
void DestroyRelay();
