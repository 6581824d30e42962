// The system calls the handler on a thread of its own.
#include "analyzer/stop_signals.h"

#include <windows.h>

#include <mutex>

#include "analyzer/server.h"

namespace {

std::mutex RunningLock;
Server* RunningServer = nullptr;

BOOL WINAPI StopOnEvent(DWORD) {
    const std::lock_guard<std::mutex> hold(RunningLock);
    if (RunningServer == nullptr) return FALSE;
    RunningServer->Stop();
    return TRUE;
}

}  // namespace

StopSignals::StopSignals(Server* server) {
    const std::lock_guard<std::mutex> hold(RunningLock);
    RunningServer = server;
    SetConsoleCtrlHandler(StopOnEvent, TRUE);
}

StopSignals::~StopSignals() {
    SetConsoleCtrlHandler(StopOnEvent, FALSE);
    const std::lock_guard<std::mutex> hold(RunningLock);
    RunningServer = nullptr;
}
