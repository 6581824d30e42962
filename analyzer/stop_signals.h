// What the system sends to a program that is to end: SIGINT and SIGTERM, or Ctrl+C, Ctrl+Break and the
// closing of the console. One definition per target: stop_signals_posix.cpp, stop_signals_windows.cpp.
#pragma once

class Server;

/// Leads them to the server's Stop while this lives; a second SIGINT or SIGTERM ends the process at once.
/// One at a time, inside the server's own life.
class StopSignals {
  public:
    explicit StopSignals(Server* server);
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;
    ~StopSignals();
};
