// The top-level windows, scripted and real. The functions are those of Windows under names of their own, so
// that a Windows program can carry them beside the system's; arguments, results and last errors are the same.
#pragma once

#include <windows.h>

BOOL StandInEnumWindows(WNDENUMPROC procedure, LPARAM parameter);
DWORD StandInGetWindowThreadProcessId(HWND window, LPDWORD processId);
HWND StandInGetAncestor(HWND window, UINT flags);
LRESULT StandInSendMessageTimeoutA(HWND window, UINT message, WPARAM wParam, LPARAM lParam, UINT flags,
                                   UINT timeout, PDWORD_PTR result);
BOOL StandInIsWindow(HWND window);
