// See process_windows.h. This library is never routed: the functions are the system's.
#include "platform/user/process_windows.h"

namespace platform {

namespace {

BOOL CALLBACK Collect(HWND window, LPARAM windows) {
    if (IsProcessWindow(window)) reinterpret_cast<std::vector<HWND>*>(windows)->push_back(window);
    return TRUE;
}

}  // namespace

std::vector<HWND> TopLevelWindowsOfProcess() {
    std::vector<HWND> windows;
    EnumWindows(Collect, reinterpret_cast<LPARAM>(&windows));
    return windows;
}

bool IsProcessWindow(HWND window) {
    DWORD process = 0;
    return GetWindowThreadProcessId(window, &process) != 0 && process == GetCurrentProcessId();
}

DWORD ThreadOfProcessWindow(HWND window) {
    return GetWindowThreadProcessId(window, nullptr);
}

HWND RootOwnerOfProcessWindow(HWND window) {
    return GetAncestor(window, GA_ROOTOWNER);
}

DWORD SendToProcessWindow(const MSG& message, UINT milliseconds, LRESULT* answer) {
    DWORD_PTR result = 0;
    if (SendMessageTimeoutA(message.hwnd, message.message, message.wParam, message.lParam, SMTO_ABORTIFHUNG,
                            milliseconds, &result) == 0) {
        return GetLastError() != 0 ? GetLastError() : ERROR_TIMEOUT;
    }
    *answer = static_cast<LRESULT>(result);
    return 0;
}

}  // namespace platform
