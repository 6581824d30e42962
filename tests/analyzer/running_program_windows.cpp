// See running_program.h.
#include "tests/analyzer/running_program.h"

#include <windows.h>

#include <cstdlib>

struct RunningProgram::Process {
    HANDLE process = nullptr;
    HANDLE input = nullptr;
    HANDLE output = nullptr;
    std::string unread;
};

// Without a console there is nothing to press Ctrl+C on.
std::vector<Stop> WaysToStop() {
    return {Stop::kInputEnds};
}

namespace {

/// The end that the child gets; the other one, which it doesn't get, goes to `*own`.
HANDLE ChildsEnd(bool childReads, HANDLE* own) {
    SECURITY_ATTRIBUTES inherited{sizeof(inherited), nullptr, TRUE};
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    if (!CreatePipe(&readEnd, &writeEnd, &inherited, 0)) std::abort();
    *own = childReads ? writeEnd : readEnd;
    SetHandleInformation(*own, HANDLE_FLAG_INHERIT, 0);
    return childReads ? readEnd : writeEnd;
}

std::string CommandLine(const std::vector<std::string>& arguments) {
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, MAX_PATH - 1);
    const std::string own = path;
    std::string command = "\"" + own.substr(0, own.find_last_of('\\') + 1) + "qxanalyzer.exe\"";
    for (const std::string& argument : arguments)
        command += " \"" + argument + "\"";
    return command;
}

}  // namespace

RunningProgram::RunningProgram(const std::vector<std::string>& arguments) : process_(new Process) {
    STARTUPINFOA startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = ChildsEnd(true, &process_->input);
    startup.hStdOutput = startup.hStdError = ChildsEnd(false, &process_->output);
    std::string command = CommandLine(arguments);
    PROCESS_INFORMATION started{};
    if (!CreateProcessA(nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                        &started))
        std::abort();
    CloseHandle(started.hThread);
    CloseHandle(startup.hStdInput);
    CloseHandle(startup.hStdOutput);
    process_->process = started.hProcess;
}

RunningProgram::~RunningProgram() {
    TerminateProcess(process_->process, 1);
    WaitForSingleObject(process_->process, INFINITE);
    CloseHandle(process_->process);
    if (process_->input != nullptr) CloseHandle(process_->input);
    CloseHandle(process_->output);
    delete process_;
}

std::string RunningProgram::Line() {
    std::string& unread = process_->unread;
    std::size_t end = unread.find('\n');
    char part[512];
    DWORD count = 0;
    while (end == std::string::npos && ReadFile(process_->output, part, sizeof(part), &count, nullptr) &&
           count > 0) {
        unread.append(part, count);
        end = unread.find('\n');
    }
    const std::string line = unread.substr(0, end == std::string::npos ? end : end + 1);
    unread.erase(0, line.size());
    return line;
}

void RunningProgram::Tell(Stop) {
    CloseHandle(process_->input);
    process_->input = nullptr;
}

bool RunningProgram::TellToReadRules() {
    return false;
}

int RunningProgram::Status() {
    DWORD status = 0;
    WaitForSingleObject(process_->process, INFINITE);
    GetExitCodeProcess(process_->process, &status);
    return static_cast<int>(status);
}
