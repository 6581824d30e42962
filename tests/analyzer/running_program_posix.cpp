// See running_program.h.
#include "tests/analyzer/running_program.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

struct RunningProgram::Process {
    pid_t id = 0;
    int input = -1;
    std::FILE* output = nullptr;
};

std::vector<Stop> WaysToStop() {
    return {Stop::kInputEnds, Stop::kInterrupt, Stop::kTerminate};
}

RunningProgram::RunningProgram(const std::vector<std::string>& arguments) : process_(new Process) {
    int input[2];
    int output[2];
    if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(output, O_CLOEXEC) != 0) std::abort();
    std::vector<char*> argv = {const_cast<char*>(QX_ANALYZER)};
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    process_->id = ::fork();
    if (process_->id == 0) {
        ::dup2(input[0], 0);
        ::dup2(output[1], 1);
        ::dup2(output[1], 2);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(input[0]);
    ::close(output[1]);
    process_->input = input[1];
    process_->output = ::fdopen(output[0], "r");
}

RunningProgram::~RunningProgram() {
    if (process_->id > 0) {
        ::kill(process_->id, SIGKILL);
        ::waitpid(process_->id, nullptr, 0);
    }
    if (process_->input >= 0) ::close(process_->input);
    std::fclose(process_->output);
    delete process_;
}

std::string RunningProgram::Line() {
    char line[8192];
    return std::fgets(line, sizeof(line), process_->output) != nullptr ? line : "";
}

void RunningProgram::Tell(Stop stop) {
    if (stop == Stop::kInputEnds) {
        ::close(process_->input);
        process_->input = -1;
    } else {
        ::kill(process_->id, stop == Stop::kInterrupt ? SIGINT : SIGTERM);
    }
}

bool RunningProgram::TellToReadRules() {
    return ::kill(process_->id, SIGHUP) == 0;
}

int RunningProgram::Status() {
    int status = 0;
    ::waitpid(process_->id, &status, 0);
    process_->id = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}
