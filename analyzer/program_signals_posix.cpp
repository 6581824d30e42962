// See program_signals.h.
#include "analyzer/program_signals.h"

#include <atomic>
#include <csignal>

#include "analyzer/server.h"

namespace {

std::atomic<Server*> RunningServer{nullptr};

void StopOnSignal(int signal) {
    // Who sends another one doesn't want to wait for the output to be read.
    std::signal(signal, SIG_DFL);
    if (Server* server = RunningServer.load()) server->Stop();
}

void InterruptOnSignal(int) {
    if (Server* server = RunningServer.load()) server->Interrupt();
}

}  // namespace

ProgramSignals::ProgramSignals(Server* server) {
    RunningServer = server;
    // Output that nobody reads is no reason to end.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGHUP, InterruptOnSignal);
    std::signal(SIGINT, StopOnSignal);
    std::signal(SIGTERM, StopOnSignal);
}

ProgramSignals::~ProgramSignals() {
    for (const int signal : {SIGHUP, SIGINT, SIGTERM})
        std::signal(signal, SIG_DFL);
    RunningServer = nullptr;
}
