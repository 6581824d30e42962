#include "platform/testing/resource_counts.h"

#include <chrono>
#include <thread>

#include "platform/kernel/critical_section.h"
#include "platform/kernel/handles.h"
#include "platform/kernel/heap.h"
#include "platform/kernel/modules.h"
#include "platform/kernel/thread.h"
#include "platform/kernel/tls.h"
#include "platform/system/certificates.h"

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

ResourceCounts CountResources() {
    ResourceCounts counts;
    counts.events = CountHandles(ObjectKind::kEvent);
    counts.semaphores = CountHandles(ObjectKind::kSemaphore);
    counts.threadHandles = CountHandles(ObjectKind::kThread);
    counts.completionPorts = CountHandles(ObjectKind::kCompletionPort);
    counts.registryKeys = CountHandles(ObjectKind::kRegistryKey);
    counts.lowerSockets = CountHandles(ObjectKind::kLowerSocket);
    counts.layeredSockets = CountHandles(ObjectKind::kLayeredSocket);
    counts.otherHandles = CountHandles(ObjectKind::kOther);
    counts.runningThreads = CountRunningThreads();
    counts.modules = CountModules();
    counts.heaps = CountHeaps();
    counts.heapBlocks = CountHeapBlocks();
    counts.localBlocks = CountLocalBlocks();
    counts.tlsSlots = CountTlsSlots();
    counts.criticalSections = CountCriticalSections();
    counts.cryptObjects = CountCryptObjects();
    return counts;
}

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
