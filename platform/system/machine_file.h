// Reading the machine from its file, or from text in the file's format.
#pragma once

#include <memory>
#include <string>

#include "platform/system/machine.h"

namespace platform {

/// The machine described by text; on failure the result is empty and `*message` says where and why.
std::unique_ptr<Machine> ParseMachine(const std::string& text, const std::string& sourceName,
                                      std::string* message);

/// The machine described by a file; empty on failure, `*message` then says where ("file:line:column: ...")
/// and why.
std::unique_ptr<Machine> ReadMachineFile(const std::string& path, std::string* message);

}  // namespace platform
