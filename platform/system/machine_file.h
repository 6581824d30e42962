// Reading the machine from its file.
#pragma once

#include <memory>
#include <string>

#include "platform/system/machine.h"

namespace platform {

/// The machine described by a file; empty on failure, `*message` then says where ("file:line:column: ...")
/// and why.
std::unique_ptr<Machine> ReadMachineFile(const std::string& path, std::string* message);

}  // namespace platform
