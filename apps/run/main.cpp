// qxrun [--machine FILE] [--without-layer run|refuse] -- PROGRAM [ARGUMENT...]: becomes PROGRAM, an
// unmodified one whose TCP and UDP sockets go through Winsock, the layer and the base provider. 126 when the
// program can't be run so, 127 when it is not found, 2 for wrong usage; otherwise the program's own status.
#include "apps/run/program_check.h"

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr int kUsage = 2;
constexpr int kCannotRun = 126;
constexpr int kNotFound = 127;

struct Wishes {
    std::string machine;
    std::string withoutLayer;
    char** command = nullptr;
};

int Usage(const char* problem) {
    std::fprintf(
        stderr,
        "qxrun: %s\nusage: qxrun [--machine FILE] [--without-layer run|refuse] -- PROGRAM [ARGUMENT...]\n",
        problem);
    return kUsage;
}

/// 0, or the status to end with.
int Read(char** arguments, Wishes* wishes) {
    for (++arguments; *arguments != nullptr; ++arguments) {
        const std::string argument = *arguments;
        if (argument == "--") {
            wishes->command = arguments + 1;
            break;
        }
        if (argument.rfind("--", 0) != 0) {
            wishes->command = arguments;
            break;
        }
        if (argument != "--machine" && argument != "--without-layer") return Usage("there is no such option");
        if (*++arguments == nullptr) return Usage("the option wants a value");
        (argument == "--machine" ? wishes->machine : wishes->withoutLayer) = *arguments;
    }
    if (wishes->command == nullptr || *wishes->command == nullptr) return Usage("there is no program");
    if (!wishes->withoutLayer.empty() && wishes->withoutLayer != "run" && wishes->withoutLayer != "refuse")
        return Usage("--without-layer is run or refuse");
    return 0;
}

std::string OwnFolder() {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof(path));
    const std::string own(path, length > 0 ? static_cast<std::size_t>(length) : 0);
    return own.substr(0, own.find_last_of('/') + 1);
}

/// What asks the kernel through a ring of requests makes no calls that a layer could sit in; it is told that
/// this kernel has none.
bool HideRings() {
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_io_uring_setup, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {sizeof(filter) / sizeof(filter[0]), filter};
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0) return true;
    // Without the right to do it otherwise: then no program that is started may gain rights, either.
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

void Set(const char* name, const std::string& value) {
    setenv(name, value.c_str(), 1);
}

int CannotRun(const std::string& program, const std::string& reason) {
    std::fprintf(stderr, "qxrun: %s can't be run through the layer: %s\n", program.c_str(), reason.c_str());
    return kCannotRun;
}

}  // namespace

int main(int, char** argv) {
    Wishes wishes;
    if (const int status = Read(argv, &wishes)) return status;
    const std::string program = FindProgram(wishes.command[0]);
    if (program.empty()) {
        std::fprintf(stderr, "qxrun: there is no program %s\n", wishes.command[0]);
        return kNotFound;
    }
    const std::string reason = ReasonAgainst(program);
    if (!reason.empty()) return CannotRun(program, reason);

    const std::string folder = OwnFolder();
    // The loader takes these between two names.
    if (folder.find_first_of(" :") != std::string::npos)
        return CannotRun(program, "a space or colon in the path " + folder);
    char* const present = std::getenv("QX_MACHINE");
    if (wishes.machine.empty() && (present == nullptr || *present == 0))
        wishes.machine = folder + "qxrun-machine.toml";
    if (!wishes.machine.empty()) {
        char* const whole = realpath(wishes.machine.c_str(), nullptr);
        if (whole == nullptr) return Usage(("there is no machine file " + wishes.machine).c_str());
        Set("QX_MACHINE", whole);
    }
    if (!wishes.withoutLayer.empty()) Set("QX_RUN_WITHOUT_LAYER", wishes.withoutLayer);
    const char* const others = std::getenv("LD_PRELOAD");
    Set("LD_PRELOAD",
        folder + "libqxrun.so" + (others != nullptr && *others != 0 ? std::string(":") + others : ""));
    if (!HideRings()) return CannotRun(program, std::string("no filter of calls: ") + std::strerror(errno));
    execv(program.c_str(), wishes.command);
    return CannotRun(program, std::strerror(errno));
}
