// qxlaunch PROGRAM [ARGUMENT...]: runs a program that knows nothing of us with its sockets led into the
// layer. It is started suspended, made to load the Winsock host, which routes every module of the process,
// and let go. Exits with the program's exit code; 125 when it could not be started. The machine is
// QX_MACHINE's, the clock's speed QX_CLOCK_SCALE's, as everywhere. The program does not outlive the launcher,
// whatever ends it.
#include <windows.h>

#include <cstdio>
#include <string>

namespace {

constexpr int kNotStarted = 125;
constexpr DWORD kLoadMilliseconds = 20000;

std::string HostPath() {
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, MAX_PATH - 1);
    const std::string own = path;
    return own.substr(0, own.find_last_of('\\') + 1) + "qxhost.dll";
}

/// The arguments of this program after the first one, as they were written.
std::string ProgramCommandLine() {
    const char* rest = GetCommandLineA();
    bool quoted = false;
    for (; *rest != 0 && (quoted || *rest != ' '); ++rest)
        quoted = quoted != (*rest == '"');
    while (*rest == ' ')
        ++rest;
    return rest;
}

/// Has the process call LoadLibraryA; kernel32 lies at the same address in every process.
bool LoadInto(HANDLE process, const std::string& library) {
    void* const text = VirtualAllocEx(process, nullptr, library.size() + 1, MEM_COMMIT, PAGE_READWRITE);
    if (text == nullptr || !WriteProcessMemory(process, text, library.c_str(), library.size() + 1, nullptr))
        return false;
    const auto load = reinterpret_cast<LPTHREAD_START_ROUTINE>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("kernel32.dll"), "LoadLibraryA")));
    const HANDLE thread = CreateRemoteThread(process, nullptr, 0, load, text, 0, nullptr);
    if (thread == nullptr) return false;
    DWORD module = 0;
    const bool ended = WaitForSingleObject(thread, kLoadMilliseconds) == WAIT_OBJECT_0;
    GetExitCodeThread(thread, &module);
    CloseHandle(thread);
    return ended && module != 0;
}

/// Puts this process into a job that ends with it, before it starts another: that one is born into the job.
void EndTogether() {
    const HANDLE job = CreateJobObjectA(nullptr, nullptr);
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof(limits));
    // Refused where jobs do not nest and somebody else's job is in charge: then that one decides.
    AssignProcessToJobObject(job, GetCurrentProcess());
}

int Fail(const char* what) {
    std::fprintf(stderr, "qxlaunch: %s: error %lu\n", what, GetLastError());
    return kNotStarted;
}

}  // namespace

int main(int argc, char**) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: qxlaunch PROGRAM [ARGUMENT...]\n");
        return 2;
    }
    EndTogether();
    SetEnvironmentVariableA("QX_ROUTE", "all");
    std::string command = ProgramCommandLine();
    STARTUPINFOA startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION program{};
    if (!CreateProcessA(nullptr, &command[0], nullptr, nullptr, TRUE, CREATE_SUSPENDED, nullptr, nullptr,
                        &startup, &program))
        return Fail(command.c_str());
    if (!LoadInto(program.hProcess, HostPath())) {
        TerminateProcess(program.hProcess, kNotStarted);
        return Fail(HostPath().c_str());
    }
    ResumeThread(program.hThread);
    WaitForSingleObject(program.hProcess, INFINITE);
    DWORD code = kNotStarted;
    GetExitCodeProcess(program.hProcess, &code);
    return static_cast<int>(code);
}
