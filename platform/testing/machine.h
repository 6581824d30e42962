// Replaces the machine (platform/system/machine.h) in process, for tests.
#pragma once

#include <string>

#include "platform/system/machine.h"

namespace platform {

/// `machine` is the machine from now on. Call it before the first socket is made: what was already read (the
/// catalog) is not read again. The registry, folders, user, windows, routes and certificate count at once.
void SetMachineForTest(Machine machine);

/// Reads a machine from text in the file format; on failure the result is empty and `*message` says where and
/// why.
std::unique_ptr<Machine> ParseMachine(const std::string& text, const std::string& sourceName,
                                      std::string* message);

}  // namespace platform
