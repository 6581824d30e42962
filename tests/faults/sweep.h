// Runs a scenario once for every platform call that it makes, with that call failing, until it gets through
// without a fault having struck. One sweep at a time per process.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/kernel/fault_points.h"

struct SweepResult {
    int runs = 0;                       ///< runs in which the fault struck
    std::vector<std::string> failures;  ///< what was wrong, with the call that had failed
};

/// `scenario(call)` runs the whole scenario and returns what was wrong with it, or an empty text; `call()`
/// names, after it, the call that the fault has struck (empty when none). It runs with the fault armed, and
/// must not leave anything behind whatever fails.
using SweepScenario = std::function<std::string(const std::function<std::string()>& call)>;

/// Fails call after call of any platform function.
SweepResult SweepFaults(platform::FaultKind kind, DWORD value, const SweepScenario& scenario);

/// Fails call after call of one platform function.
SweepResult SweepFaultsOf(const std::string& function, platform::FaultKind kind, DWORD value,
                          const SweepScenario& scenario);

/// The platform functions that the scenario calls when nothing fails, each once.
std::vector<std::string> FunctionsCalledBy(const SweepScenario& scenario);

/// Whether a program written for Winsock can expect this error of a socket call. The low system errors are
/// those that Winsock passes on unchanged.
bool IsDocumentedWinsockError(int error);
