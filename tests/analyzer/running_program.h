// The analyzer's program as a child of the test, with its standard output (and error) in one pipe and its
// standard input in another. One definition per target: running_program_posix.cpp,
// running_program_windows.cpp.
#pragma once

#include <string>
#include <vector>

/// How the program is told to end.
enum class Stop {
    kInputEnds,
    kInterrupt,
    kTerminate,
};

/// Those that the target knows.
std::vector<Stop> WaysToStop();

class RunningProgram {
  public:
    explicit RunningProgram(const std::vector<std::string>& arguments);
    RunningProgram(const RunningProgram&) = delete;
    RunningProgram& operator=(const RunningProgram&) = delete;

    /// Ends a program that still runs.
    ~RunningProgram();

    /// The next line with its end; empty at the end of the output.
    std::string Line();

    /// The next line that has `part` in it; empty when none comes.
    std::string LineWith(const std::string& part) {
        std::string line;
        do {
            line = Line();
        } while (!line.empty() && line.find(part) == std::string::npos);
        return line;
    }

    void Tell(Stop stop);

    /// Asks it to read its rules again. False where the target has no way to.
    bool TellToReadRules();

    /// The exit status, once the program has ended.
    int Status();

  private:
    struct Process;
    Process* process_;
};
