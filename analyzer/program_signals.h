// What the system tells the program: to end, by SIGINT and SIGTERM, or by Ctrl+C, Ctrl+Break and the closing
// of the console; and, by SIGHUP, to read its rules again, for which Windows has nothing. One definition per
// target: program_signals_posix.cpp, program_signals_windows.cpp.
#pragma once

class Server;

/// Leads the first to the server's Stop while this lives, and SIGHUP to its Interrupt; a second SIGINT or
/// SIGTERM ends the process at once. One at a time, inside the server's own life.
class ProgramSignals {
  public:
    explicit ProgramSignals(Server* server);
    ProgramSignals(const ProgramSignals&) = delete;
    ProgramSignals& operator=(const ProgramSignals&) = delete;
    ~ProgramSignals();
};
