// What the process holds of the stand-in. A test compares the counts before and after.
#pragma once

#include <string>

namespace platform {

struct ResourceCounts {
    int events = 0;  // handles to events, and so on
    int semaphores = 0;
    int threadHandles = 0;
    int completionPorts = 0;
    int registryKeys = 0;
    int files = 0;
    int lowerSockets = 0;
    int layeredSockets = 0;
    int otherHandles = 0;
    int runningThreads = 0;  // made by CreateThread and not yet ended
    int modules = 0;         // loaded
    int heaps = 0;
    int heapBlocks = 0;   // in all private heaps
    int localBlocks = 0;  // LocalAlloc's
    int tlsSlots = 0;
    int criticalSections = 0;  // initialised and not deleted
    int cryptObjects = 0;      // certificate stores, messages and contexts

    int Handles() const {
        return events + semaphores + threadHandles + completionPorts + registryKeys + files + lowerSockets +
               layeredSockets + otherHandles;
    }
};

ResourceCounts CountResources();

/// Empty when `after` holds no more than `before`; otherwise one "name: before -> after" per line.
std::string DescribeGrowth(const ResourceCounts& before, const ResourceCounts& after);

/// Waits (real time, at most ten seconds) until nothing has grown since `before`: threads end, and sockets
/// are released, shortly after whoever asked for it went on. The remaining growth, or empty.
std::string SettleTo(const ResourceCounts& before);

}  // namespace platform
