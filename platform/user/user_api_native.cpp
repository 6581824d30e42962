// Windows' functions of windows under their public names.
#include "platform/user/top_level_windows.h"

BOOL EnumWindows(WNDENUMPROC procedure, LPARAM parameter) {
    return StandInEnumWindows(procedure, parameter);
}

DWORD GetWindowThreadProcessId(HWND window, LPDWORD processId) {
    return StandInGetWindowThreadProcessId(window, processId);
}

HWND GetAncestor(HWND window, UINT flags) {
    return StandInGetAncestor(window, flags);
}

LRESULT SendMessageTimeoutA(HWND window, UINT message, WPARAM wParam, LPARAM lParam, UINT flags, UINT timeout,
                            PDWORD_PTR result) {
    return StandInSendMessageTimeoutA(window, message, wParam, lParam, flags, timeout, result);
}

BOOL IsWindow(HWND window) {
    return StandInIsWindow(window);
}
