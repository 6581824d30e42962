// The machine that an application process of the demo finds itself on: where the analyzer listens, what
// happens when it can't be reached, who the user is, and which public addresses lead where. It is written to
// files, which the process finds through one environment variable. No threads.
#pragma once

#include <filesystem>
#include <map>
#include <string>

struct MachineDescription {
    unsigned short analyzerPort = 0;
    bool refuseWithoutAnalyzer = false;
    std::string user;
    std::string windowTitle;  ///< of the application's window; empty: it has none
    std::string signer;       ///< of its program; empty: it is not signed
    std::string root;  ///< what the machine puts before absolute paths of this one: a drive, or nothing
    std::map<std::string, std::string> routes;  ///< public "A.B.C.D:PORT" -> loopback "A.B.C.D:PORT"
};

/// Writes the machine into `directory`, which is made, and returns its file's path. Throws
/// std::runtime_error.
std::filesystem::path WriteMachine(const MachineDescription& machine, const std::filesystem::path& directory);
