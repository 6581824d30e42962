// What the machine is without a file, and the little else about it that each target does in its own way.
#pragma once

#include <string>

#include "platform/system/machine.h"

namespace platform {

/// What there is without a file; a file changes only what it names.
Machine DefaultMachine();

/// Path of a file in the folder of the stand-in's library.
std::string BesideThisLibrary(const std::string& fileName);

/// Whether `text` is a numeric address of IPv6, else of IPv4.
bool IsNumericAddress(const std::string& text, bool v6);

/// Ends the process as it is, since its machine cannot be had: nothing is unloaded or cleaned up any more.
[[noreturn]] void EndProcessAtOnce(int code);

}  // namespace platform
