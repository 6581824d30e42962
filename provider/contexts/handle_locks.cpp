// See handle_locks.h.
#include "provider/contexts/handle_locks.h"

#include <cstdint>

namespace {

constexpr unsigned int kGroupBits = 5;
HandleGroup Groups[1U << kGroupBits];

}  // namespace

HandleGroup& GroupOf(SOCKET s) {
    // Handles are small multiples of something; the multiplication spreads neighbours over the groups.
    const std::uint32_t spread = static_cast<std::uint32_t>(s) * 0x9E3779B1U;
    return Groups[spread >> (32 - kGroupBits)];
}

AllHandleGroups::AllHandleGroups() QX_NO_THREAD_SAFETY_ANALYSIS {
    for (HandleGroup& group : Groups)
        group.Lock.Enter();
}

AllHandleGroups::~AllHandleGroups() QX_NO_THREAD_SAFETY_ANALYSIS {
    for (HandleGroup& group : Groups)
        group.Lock.Leave();
}

void InitializeHandleLocks() {
    for (HandleGroup& group : Groups)
        group.Lock.Initialize();
}

void DeleteHandleLocks() {
    for (HandleGroup& group : Groups)
        group.Lock.Delete();
}
