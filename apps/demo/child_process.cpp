// Children by fork and exec, since only the child itself can ask the kernel to die with its parent; see the
// header.
#include "apps/demo/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <stdexcept>

namespace {

using namespace std::chrono_literals;

constexpr auto kReapInterval = 2ms;

// The ids of children that are not reaped yet. An id is signalled only while it is in here, under the lock,
// and leaves in the same step that reaps it: so a signal never reaches a stranger that got the id next.
std::mutex g_childrenLock;
std::set<pid_t> g_children;
bool g_interrupted = false;

struct Pipe {
    int readEnd = -1;
    int writeEnd = -1;

    Pipe() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
        readEnd = ends[0];
        writeEnd = ends[1];
    }
};

std::vector<std::string> MergeEnvironment(const std::map<std::string, std::string>& additions) {
    std::vector<std::string> merged;
    for (char** entry = environ; *entry; ++entry) {
        const std::string text = *entry;
        if (additions.count(text.substr(0, text.find('='))) == 0) merged.push_back(text);
    }
    for (const auto& [name, value] : additions) {
        if (!value.empty()) merged.emplace_back(name).append("=").append(value);
    }
    return merged;
}

std::vector<char*> Pointers(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts)
        pointers.push_back(const_cast<char*>(text.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

struct Execution {
    char* const* arguments;
    char* const* environment;
    int input;
    int output;
    int error;
    pid_t parent;
};

/// What the child does between fork and exec: calls that are safe there, and nothing else.
[[noreturn]] void Execute(const Execution& execution) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != execution.parent) _exit(126);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    dup2(execution.input, STDIN_FILENO);
    dup2(execution.output, STDOUT_FILENO);
    dup2(execution.error, STDERR_FILENO);
    execve(execution.arguments[0], execution.arguments, execution.environment);
    _exit(127);
}

}  // namespace

Deadline After(std::chrono::milliseconds duration) {
    return std::chrono::steady_clock::now() + duration;
}

ChildProcess::ChildProcess(const ChildOptions& options) {
    const std::vector<std::string> environment = MergeEnvironment(options.environment);
    const std::vector<char*> argumentPointers = Pointers(options.arguments);
    const std::vector<char*> environmentPointers = Pointers(environment);
    const Pipe input;
    const Pipe output;
    const int error = open(options.errorFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const Execution execution = {
        argumentPointers.data(), environmentPointers.data(), input.readEnd, output.writeEnd, error, getpid()};
    int forkError = 0;
    {
        const std::lock_guard<std::mutex> hold(g_childrenLock);
        if (!g_interrupted) {
            id_ = fork();
            if (id_ == 0) Execute(execution);
            forkError = errno;
            if (id_ > 0) g_children.insert(id_);
        }
    }
    close(input.readEnd);
    close(output.writeEnd);
    close(error);
    input_ = input.writeEnd;
    output_ = output.readEnd;
    if (id_ < 0) {
        close(input_);
        close(output_);
        throw std::runtime_error(Interrupted() ? "interrupted"
                                               : std::string("fork: ") + std::strerror(forkError));
    }
    reader_ = std::thread([this] { ReadOutput(); });
}

ChildProcess::~ChildProcess() {
    Wait(After(0ms));
    reader_.join();
    EndInput();
    close(output_);
}

void ChildProcess::ReadOutput() {
    std::string partial;
    char buffer[4096];
    for (;;) {
        const ssize_t count = read(output_, buffer, sizeof(buffer));
        if (count < 0 && errno == EINTR) continue;
        const std::lock_guard<std::mutex> hold(lock_);
        if (count <= 0) {
            if (!partial.empty()) lines_.push_back(partial);
            outputEnded_ = true;
            changed_.notify_all();
            return;
        }
        partial.append(buffer, static_cast<std::size_t>(count));
        for (std::size_t end = partial.find('\n'); end != std::string::npos; end = partial.find('\n')) {
            lines_.push_back(partial.substr(0, end));
            // A Windows program ends its lines with two characters.
            if (!lines_.back().empty() && lines_.back().back() == '\r') lines_.back().pop_back();
            partial.erase(0, end + 1);
        }
        changed_.notify_all();
    }
}

std::optional<std::string> ChildProcess::Line(std::size_t index, Deadline deadline) {
    std::unique_lock<std::mutex> hold(lock_);
    changed_.wait_until(hold, deadline, [&] { return lines_.size() > index || outputEnded_; });
    if (lines_.size() <= index) return std::nullopt;
    return lines_[index];
}

std::vector<std::string> ChildProcess::Output() {
    std::unique_lock<std::mutex> hold(lock_);
    changed_.wait(hold, [this] { return outputEnded_; });
    return lines_;
}

bool ChildProcess::WriteLine(const std::string& line) {
    // The signal of a closed pipe is for this thread alone, so that blocking it here turns it into an error.
    sigset_t pipeSignal;
    sigset_t before;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSignal, &before);
    const std::string text = line + "\n";
    const bool written = write(input_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const timespec noWait = {};
    if (!written) sigtimedwait(&pipeSignal, nullptr, &noWait);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return written;
}

void ChildProcess::EndInput() {
    if (input_ >= 0) close(input_);
    input_ = -1;
}

void ChildProcess::RequestStop() {
    Signal(SIGTERM);
}

void ChildProcess::Signal(int signal) {
    const std::lock_guard<std::mutex> hold(g_childrenLock);
    if (g_children.count(id_) != 0) kill(id_, signal);
}

int ChildProcess::Wait(Deadline deadline) {
    {
        // The output normally ends with the process, so this is where the time is spent.
        std::unique_lock<std::mutex> hold(lock_);
        changed_.wait_until(hold, deadline, [this] { return outputEnded_; });
    }
    while (!TryReap()) {
        if (std::chrono::steady_clock::now() >= deadline) Signal(SIGKILL);
        std::this_thread::sleep_for(kReapInterval);
    }
    return *status_;
}

bool ChildProcess::TryReap() {
    const std::lock_guard<std::mutex> hold(g_childrenLock);
    if (status_) return true;
    int status = 0;
    if (waitpid(id_, &status, WNOHANG) != id_) return false;
    g_children.erase(id_);
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return true;
}

void ChildProcess::Interrupt() {
    const std::lock_guard<std::mutex> hold(g_childrenLock);
    g_interrupted = true;
    for (const pid_t child : g_children)
        kill(child, SIGKILL);
}

bool ChildProcess::Interrupted() {
    const std::lock_guard<std::mutex> hold(g_childrenLock);
    return g_interrupted;
}
