// Threads are the system's, which ends a terminated one itself: no thread ends in the host.
#pragma once

#include <windows.h>

#include "platform/kernel/thread_state.h"

namespace platform {

class ThreadObject {
  public:
    static bool IsTerminated() { return false; }
    static DWORD requestedExitCode() { return 0; }
};

inline void EndCurrentThread(DWORD) {}

}  // namespace platform
