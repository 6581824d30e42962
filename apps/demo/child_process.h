// Child processes of the demo and the end-to-end tests: started, listened to, ended by their id and always
// reaped.
//
// A child dies with the thread that started it (the kernel sees to that, also when this process is killed),
// so that thread must wait for it. A reader thread per child collects what it prints, so that no child ever
// waits for us. The methods may be called from several threads; Start() and the destructor belong to the
// owner.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

using Deadline = std::chrono::steady_clock::time_point;

Deadline After(std::chrono::milliseconds duration);

struct ChildOptions {
    std::vector<std::string> arguments;              ///< the program's path first
    std::map<std::string, std::string> environment;  ///< on top of this process's own; empty: taken away
    std::filesystem::path errorFile;                 ///< where its standard error goes
};

class ChildProcess {
  public:
    /// Starts the program. Throws std::runtime_error when that is impossible or after an interruption.
    explicit ChildProcess(const ChildOptions& options);

    /// Kills the child if it still runs, and reaps it.
    ~ChildProcess();

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t Id() const { return id_; }

    /// The child's `index`-th line of output, once it is there; nothing when the output ends or time is up
    /// first.
    std::optional<std::string> Line(std::size_t index, Deadline deadline);

    /// All lines, once the output has ended: for a child that was waited for.
    std::vector<std::string> Output();

    /// Sends a line to the child's standard input; false when the child doesn't read any more.
    bool WriteLine(const std::string& line);

    /// Ends the child's standard input. What was written before is still read.
    void EndInput();

    /// Asks the child to end (SIGTERM). Does nothing for a child that has ended.
    void RequestStop();

    /// Waits for the end of the child, killing it when time is up. Its exit status, or 128 + the signal that
    /// ended it. May be called again for the same answer.
    int Wait(Deadline deadline);

    /// Kills every running child of this process and lets no new one start; for a process that is told to
    /// end.
    static void Interrupt();
    static bool Interrupted();

  private:
    void ReadOutput();
    void Signal(int signal);
    bool TryReap();

    pid_t id_ = -1;
    int input_ = -1;  ///< the owner's
    int output_ = -1;
    std::optional<int> status_;

    std::mutex lock_;  ///< guards lines_ and outputEnded_
    std::condition_variable changed_;
    std::vector<std::string> lines_;
    bool outputEnded_ = false;
    std::thread reader_;
};
