#include "analyzer/stop_signals.h"

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

}  // namespace

StopSignals::StopSignals(Server* server) {
    RunningServer = server;
    // Output that nobody reads is no reason to end.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGINT, StopOnSignal);
    std::signal(SIGTERM, StopOnSignal);
}

StopSignals::~StopSignals() {
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    RunningServer = nullptr;
}
