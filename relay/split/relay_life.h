// Starting and stopping the relay. What carries split connections is made by the first of them.
#pragma once

#include "base/atomic.h"

/// Tells the relay worker to end.
extern Atomic<bool> RelayShutdown;

/// Lets connections be split again after a stop. Called at attach and by the first start-up.
void StartRelay();

/// Ends what the relay has started and everybody's wait for an answer that the relay worker was to read.
/// Closing the listener goes through Winsock back into the layer: no lock may be held.
void StopRelay();
