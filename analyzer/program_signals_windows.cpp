// The system calls the handler on a thread of its own.
#include "analyzer/program_signals.h"

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

ProgramSignals::ProgramSignals(Server* server) {
    const std::lock_guard<std::mutex> hold(RunningLock);
    RunningServer = server;
    SetConsoleCtrlHandler(StopOnEvent, TRUE);
}

ProgramSignals::~ProgramSignals() {
    SetConsoleCtrlHandler(StopOnEvent, FALSE);
    const std::lock_guard<std::mutex> hold(RunningLock);
    RunningServer = nullptr;
}
