// See sweep.h.
#include "tests/faults/sweep.h"

#include <winsock2.h>

#include <algorithm>

namespace {

constexpr int kMostCalls = 5000;

}  // namespace

SweepResult SweepFaultsOf(const std::string& function, platform::FaultKind kind, DWORD value,
                          const SweepScenario& scenario) {
    SweepResult result;
    for (int nth = 1; nth <= kMostCalls; ++nth) {
        platform::ArmFault({function, nth, kind, value});
        const auto call = [&]() -> std::string {
            if (platform::FaultsStruck() == 0) return "";
            return function.empty() ? platform::CountedCalls().at(static_cast<std::size_t>(nth - 1))
                                    : function;
        };
        const std::string wrong = scenario(call);
        const std::string struck = call();
        platform::DisarmFaults();
        if (!wrong.empty())
            result.failures.push_back("call " + std::to_string(nth) + " (" + struck + "): " + wrong);
        if (struck.empty()) return result;
        ++result.runs;
    }
    result.failures.push_back("the scenario made more than " + std::to_string(kMostCalls) + " calls");
    return result;
}

SweepResult SweepFaults(platform::FaultKind kind, DWORD value, const SweepScenario& scenario) {
    return SweepFaultsOf("", kind, value, scenario);
}

std::vector<std::string> FunctionsCalledBy(const SweepScenario& scenario) {
    platform::CountCalls();
    scenario([] { return std::string(); });
    std::vector<std::string> names = platform::CountedCalls();
    platform::DisarmFaults();
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

bool IsDocumentedWinsockError(int error) {
    switch (error) {
        case WSA_INVALID_HANDLE:
        case WSA_NOT_ENOUGH_MEMORY:
        case WSA_INVALID_PARAMETER:
        case WSA_OPERATION_ABORTED:
        case WSA_IO_INCOMPLETE:
        case WSA_IO_PENDING:
            return true;
        default:
            return error >= WSABASEERR && error <= WSABASEERR + 2000;
    }
}
