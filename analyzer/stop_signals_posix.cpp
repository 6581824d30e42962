#include "analyzer/stop_signals.h"

#include <atomic>
#include <csignal>

#include "analyzer/server.h"

namespace {

std::atomic<Server*> RunningServer{nullptr};

void StopOnSignal(int signal) {
    // The server's thread may be waiting for somebody who doesn't read its output: the next one ends it.
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
