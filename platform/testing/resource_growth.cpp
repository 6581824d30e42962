// What has grown between two counts. How to count is the target's own.
#include <chrono>
#include <thread>

#include "platform/testing/resource_counts.h"

namespace platform {

namespace {

constexpr auto kSettlePatience = std::chrono::seconds(10);

struct NamedCount {
    const char* name;
    int ResourceCounts::*count;
};

constexpr NamedCount kCounts[] = {
    {"events", &ResourceCounts::events},
    {"semaphores", &ResourceCounts::semaphores},
    {"thread handles", &ResourceCounts::threadHandles},
    {"completion ports", &ResourceCounts::completionPorts},
    {"registry keys", &ResourceCounts::registryKeys},
    {"files", &ResourceCounts::files},
    {"lower sockets", &ResourceCounts::lowerSockets},
    {"layered sockets", &ResourceCounts::layeredSockets},
    {"other handles", &ResourceCounts::otherHandles},
    {"running threads", &ResourceCounts::runningThreads},
    {"modules", &ResourceCounts::modules},
    {"heaps", &ResourceCounts::heaps},
    {"heap blocks", &ResourceCounts::heapBlocks},
    {"local blocks", &ResourceCounts::localBlocks},
    {"TLS slots", &ResourceCounts::tlsSlots},
    {"critical sections", &ResourceCounts::criticalSections},
    {"crypt objects", &ResourceCounts::cryptObjects},
};

}  // namespace

std::string DescribeGrowth(const ResourceCounts& before, const ResourceCounts& after) {
    std::string growth;
    for (const NamedCount& named : kCounts) {
        if (after.*named.count <= before.*named.count) continue;
        growth += std::string(named.name) + ": " + std::to_string(before.*named.count) + " -> " +
                  std::to_string(after.*named.count) + "\n";
    }
    return growth;
}

std::string SettleTo(const ResourceCounts& before) {
    const auto giveUp = std::chrono::steady_clock::now() + kSettlePatience;
    for (;;) {
        std::string growth = DescribeGrowth(before, CountResources());
        if (growth.empty() || std::chrono::steady_clock::now() > giveUp) return growth;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

}  // namespace platform
