// Waits on the clock that tests scale, stop and step, for modules whose waits are routed here. The system can
// wait in real time only, so a wait with a time limit is made of short real ones, after each of which the
// clock is asked. Any thread may call.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include "platform/kernel/clock.h"

namespace platform {

DWORD WaitOnClock(HANDLE handle, DWORD milliseconds) noexcept;

/// WaitForMultipleObjects.
DWORD WaitForSeveralOnClock(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds) noexcept;

/// The system's select with a limit on the clock. Null `timeout`: none.
int SelectOnClock(fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, timeval* timeout) noexcept;

/// TerminateThread, of a thread that comes to one of these waits or to its end: there it holds no lock of the
/// system, and nothing of the wait stays behind. A thread that does not, within a second, is ended where it
/// stands.
BOOL TerminateInWait(HANDLE thread, DWORD exitCode) noexcept;

}  // namespace platform
