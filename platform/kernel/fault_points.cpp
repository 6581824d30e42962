// Arming, counting and striking.
#include "platform/kernel/fault_points.h"

#include <mutex>

namespace platform {

std::atomic<unsigned> PlatformScope::Attention{0};

namespace {

constexpr std::size_t kMostNames = 100'000;

struct ArmedFault {
    Fault fault;
    int seen = 0;
};

struct FaultState {
    std::mutex mutex;  // leaf; guards everything here
    std::vector<ArmedFault> armed;
    std::vector<std::string> counted;
    int struck = 0;
    bool counting = false;
};

FaultState& TheFaults() {
    static FaultState* const state = new FaultState;
    return *state;
}

void StartCounting(FaultState& faults) {
    if (!faults.counting) {
        faults.counted.clear();
        faults.struck = 0;
        faults.counting = true;
    }
    PlatformScope::Attention.fetch_or(kFaultAttention);
}

/// What a striking fault does. Nothing in it needs a destructor: an exception leaves without running any.
struct Blow {
    FaultKind kind;
    DWORD value;
};

/// Counts one call against the armed faults; the one that strikes, if any.
bool Strike(FaultState& faults, const char* name, Blow* blow) {
    const std::lock_guard<std::mutex> holder(faults.mutex);
    if (!faults.counting) return false;
    if (faults.counted.size() < kMostNames) faults.counted.emplace_back(name);
    bool strikes = false;
    for (ArmedFault& armed : faults.armed) {
        if (!armed.fault.function.empty() && armed.fault.function != name) continue;
        ++armed.seen;
        if (armed.seen == armed.fault.nth || (armed.fault.repeat && armed.seen > armed.fault.nth)) {
            *blow = {armed.fault.kind, armed.fault.value};
            strikes = true;
        }
    }
    if (strikes) ++faults.struck;
    return strikes;
}

}  // namespace

void ArmFault(const Fault& fault) {
    FaultState& faults = TheFaults();
    const std::lock_guard<std::mutex> holder(faults.mutex);
    StartCounting(faults);
    faults.armed.push_back({fault, 0});
}

void CountCalls() {
    FaultState& faults = TheFaults();
    const std::lock_guard<std::mutex> holder(faults.mutex);
    StartCounting(faults);
}

void DisarmFaults() {
    FaultState& faults = TheFaults();
    const std::lock_guard<std::mutex> holder(faults.mutex);
    PlatformScope::Attention.fetch_and(~static_cast<unsigned>(kFaultAttention));
    faults.armed.clear();
    faults.counting = false;
}

int FaultsStruck() {
    FaultState& faults = TheFaults();
    const std::lock_guard<std::mutex> holder(faults.mutex);
    return faults.struck;
}

std::vector<std::string> CountedCalls() {
    FaultState& faults = TheFaults();
    const std::lock_guard<std::mutex> holder(faults.mutex);
    return faults.counted;
}

void PlatformCall::Count(const char* name, DWORD defaultError) {
    if (CurrentCallDepth().calls != 1) return;
    Blow fault = {};
    if (!Strike(TheFaults(), name, &fault)) return;
    switch (fault.kind) {
        case FaultKind::kError:
            fails_ = true;
            error_ = fault.value != 0 ? fault.value : defaultError;
            break;
        case FaultKind::kShortCount:
            limit_ = fault.value;
            break;
        case FaultKind::kIgnored:
            ignored_ = true;
            break;
        case FaultKind::kException:
            // The exception leaves without the scope's destructor.
            --CurrentCallDepth().calls;
            RaiseException(fault.value, 0, 0, nullptr);
            break;
    }
}

}  // namespace platform
