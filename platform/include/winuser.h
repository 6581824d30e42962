// Top-level windows as another program's thread sees them. The windows themselves are scripted by the machine
// file.
#pragma once

#include <windef.h>

#define WM_NULL 0x0000
#define WM_GETTEXT 0x000D
#define WM_GETTEXTLENGTH 0x000E
#define WM_USER 0x0400
#define SMTO_ABORTIFHUNG 0x0002
#define GA_PARENT 1
#define GA_ROOT 2
#define GA_ROOTOWNER 3

typedef BOOL(CALLBACK* WNDENUMPROC)(HWND window, LPARAM parameter);

extern "C" {
BOOL WINAPI EnumWindows(WNDENUMPROC procedure, LPARAM parameter);
DWORD WINAPI GetWindowThreadProcessId(HWND window, LPDWORD processId);
HWND WINAPI GetAncestor(HWND window, UINT flags);
LRESULT WINAPI SendMessageTimeoutA(HWND window, UINT message, WPARAM wParam, LPARAM lParam, UINT flags,
                                   UINT timeout, PDWORD_PTR result);
BOOL WINAPI IsWindow(HWND window);
}
