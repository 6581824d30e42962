// Commands and paths per target; see the header.
#include "apps/demo/application_programs.h"

#include <cstdlib>

namespace {

namespace fs = std::filesystem;

/// The drive as which Wine shows the root of the file system.
constexpr const char* kRootDrive = "Z:";

}  // namespace

fs::path ProgramDirectory() {
    return fs::read_symlink("/proc/self/exe").parent_path();
}

ApplicationPrograms ApplicationPrograms::FromEnvironment() {
    ApplicationPrograms programs;
    if (const char* folder = std::getenv("QX_WINDOWS_PROGRAMS")) programs.windowsFolder = folder;
    if (const char* wine = std::getenv("QX_WINE")) programs.wine = wine;
    return programs;
}

std::vector<std::string> ApplicationPrograms::Command(const std::string& program) const {
    if (AreNative()) return {(ProgramDirectory() / program).string()};
    const fs::path folder = fs::absolute(windowsFolder);
    return {wine.string(), PathFor(folder / "qxlaunch.exe"), PathFor(folder / (program + ".exe"))};
}

std::string ApplicationPrograms::PathFor(const fs::path& path) const {
    return AreNative() ? path.string() : kRootDrive + path.string();
}
