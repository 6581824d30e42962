// Turns an interrupt, hang-up or termination signal into an orderly end: the children are killed at once,
// whoever waits for one sees it end, and the program takes its usual way out, past every destructor.
#pragma once

#include <atomic>
#include <csignal>
#include <thread>

class Interruption {
  public:
    /// Must be made before the process starts other threads, since they inherit the signals' mask.
    Interruption();
    ~Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

  private:
    void WaitForSignals();

    sigset_t signals_;
    std::atomic<bool> ending_{false};
    std::thread waiter_;
};
