// The counts, collected from the rooms that keep them.
#include "platform/testing/resource_counts.h"

#include "platform/kernel/critical_section.h"
#include "platform/kernel/handles.h"
#include "platform/kernel/heap.h"
#include "platform/kernel/modules.h"
#include "platform/kernel/thread.h"
#include "platform/kernel/tls.h"
#include "platform/system/certificates.h"

namespace platform {

ResourceCounts CountResources() {
    ResourceCounts counts;
    counts.events = CountHandles(ObjectKind::kEvent);
    counts.semaphores = CountHandles(ObjectKind::kSemaphore);
    counts.threadHandles = CountHandles(ObjectKind::kThread);
    counts.completionPorts = CountHandles(ObjectKind::kCompletionPort);
    counts.registryKeys = CountHandles(ObjectKind::kRegistryKey);
    counts.files = CountHandles(ObjectKind::kFile);
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

}  // namespace platform
