// The one wait that the scripted windows need: a window that hangs lets time pass on the clock.
#pragma once

#include <windows.h>

namespace platform {

/// Sleeps on the clock; there are never objects.
void WaitForObjects(const HANDLE* handles, DWORD count, bool waitAll, DWORD milliseconds, bool alertable);

}  // namespace platform
