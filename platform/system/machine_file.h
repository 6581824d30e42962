// Reading the machine from its file.
#pragma once

#include <memory>
#include <string>

#include "platform/system/machine.h"

namespace platform {

/// What there is without a file; a file changes only what it names.
Machine DefaultMachine();

/// Path of a file in the folder of the stand-in's library.
std::string BesideThisLibrary(const std::string& fileName);

/// The machine described by a file; empty on failure, `*message` then says where ("file:line:column: ...")
/// and why.
std::unique_ptr<Machine> ReadMachineFile(const std::string& path, std::string* message);

}  // namespace platform
