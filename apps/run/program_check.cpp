// Reading of the head of an executable file; see the header.
#include "apps/run/program_check.h"

#include <elf.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

namespace {

constexpr int kMostInterpreters = 4;

#if defined(__x86_64__)
constexpr unsigned kThisMachine = EM_X86_64;
#elif defined(__aarch64__)
constexpr unsigned kThisMachine = EM_AARCH64;
#endif

bool IsExecutable(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && access(path.c_str(), X_OK) == 0;
}

/// The kernel gives it rights that its caller has not, and then nothing is preloaded.
std::string ReasonOfRights(const std::string& path) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) return "it can't be looked at";
    if ((status.st_mode & S_ISUID) != 0 && status.st_uid != geteuid())
        return "it is a set-user-id program, into which nothing is preloaded";
    if ((status.st_mode & S_ISGID) != 0 && status.st_gid != getegid())
        return "it is a set-group-id program, into which nothing is preloaded";
    if (geteuid() != 0 && getxattr(path.c_str(), "security.capability", nullptr, 0) > 0)
        return "it has capabilities of its own, so that nothing is preloaded into it";
    return "";
}

std::string ReasonOfImage(std::ifstream& file) {
    Elf64_Ehdr header = {};
    file.read(reinterpret_cast<char*>(&header), sizeof(header));
    if (file.gcount() < EI_NIDENT || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0)
        return "it is neither a program nor a script";
    if (header.e_ident[EI_CLASS] != ELFCLASS64)
        return "it is a 32-bit program, and the layer is built for 64 bits";
    if (header.e_machine != kThisMachine) return "it is a program for another processor";
    std::vector<Elf64_Phdr> segments(header.e_phnum);
    file.seekg(static_cast<std::streamoff>(header.e_phoff));
    file.read(reinterpret_cast<char*>(segments.data()),
              static_cast<std::streamsize>(segments.size() * sizeof(Elf64_Phdr)));
    for (const Elf64_Phdr& segment : segments) {
        if (segment.p_type == PT_INTERP) return "";
    }
    return "it is linked statically, so that nothing can be preloaded into it";
}

/// The interpreter in a script's first line; empty when it is no script.
std::string InterpreterOf(std::ifstream& file) {
    std::string line;
    if (file.get() != '#' || file.get() != '!' || !std::getline(file, line)) return "";
    std::string interpreter;
    std::istringstream(line) >> interpreter;
    return interpreter;
}

}  // namespace

std::string FindProgram(const std::string& name) {
    if (name.find('/') != std::string::npos) return IsExecutable(name) ? name : "";
    const char* const path = std::getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "/usr/local/bin:/bin:/usr/bin");
    for (std::string folder; std::getline(folders, folder, ':');) {
        const std::string candidate = (folder.empty() ? "." : folder) + "/" + name;
        if (IsExecutable(candidate)) return candidate;
    }
    return "";
}

std::string ReasonAgainst(const std::string& path) {
    std::string program = path;
    for (int i = 0; i < kMostInterpreters; ++i) {
        std::ifstream file(program, std::ios::binary);
        if (!file) return "it can't be read";
        const std::string interpreter = InterpreterOf(file);
        if (interpreter.empty()) {
            file.clear();
            file.seekg(0);
            const std::string reason = ReasonOfImage(file);
            return !reason.empty() ? reason : ReasonOfRights(program);
        }
        program = interpreter;
    }
    return "it is a script of a script of a script";
}
