// The windows that this process has really made, for the functions that show them together with the
// machine's. Natively they are the stand-in's own, on Windows the system's.
#pragma once

#include <windows.h>

#include <vector>

namespace platform {

/// The top-level windows of this process, the newest first.
std::vector<HWND> TopLevelWindowsOfProcess();

bool IsProcessWindow(HWND window);
DWORD ThreadOfProcessWindow(HWND window);
HWND RootOwnerOfProcessWindow(HWND window);

/// 0 with `*answer`, or ERROR_INVALID_WINDOW_HANDLE, ERROR_TIMEOUT, ERROR_NOT_ENOUGH_MEMORY.
DWORD SendToProcessWindow(const MSG& message, UINT milliseconds, LRESULT* answer);

}  // namespace platform
