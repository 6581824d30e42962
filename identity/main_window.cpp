// The title of the host process's main window. Runs on the collection thread alone: a window that doesn't
// answer must never hold up a thread of the application.
#include <winsock2.h>

#include <windows.h>

#include <cstring>
#include <string>
#include <string_view>

#include "base/trace.h"
#include "identity/process_identity.h"
#include "messages/text_cut.h"
#include "provider/process_state.h"

namespace {

constexpr UINT kProbeMilliseconds = 1000;
constexpr UINT kTitleMilliseconds = 3000;
constexpr WPARAM kTitleLimit = 255;

// Of the collection thread. Not on its stack: the thread of a window that answers too late still writes here.
char TitleBuffer[kTitleLimit + 1];

bool AskForTitle(HWND window, UINT milliseconds, DWORD_PTR& answer) {
    std::memset(TitleBuffer, 0, sizeof(TitleBuffer));
    return SendMessageTimeoutA(window, WM_GETTEXT, kTitleLimit, reinterpret_cast<LPARAM>(TitleBuffer),
                               SMTO_ABORTIFHUNG, milliseconds, &answer) != 0;
}

}  // namespace

BOOL CALLBACK FindMainWindowProc(HWND window, LPARAM found) {
    DWORD owner = 0;
    const DWORD thread = GetWindowThreadProcessId(window, &owner);
    // The layer's own window, and what the system makes beside it, say nothing about the application.
    if (owner != CurrentProcessId || thread == HiddenWindowThread) return TRUE;
    const HWND root = GetAncestor(window, GA_ROOTOWNER);
    if (root == nullptr) return TRUE;

    DWORD_PTR answer = 0;
    if (AskForTitle(root, kProbeMilliseconds, answer)) {
        *reinterpret_cast<HWND*>(found) = root;
    } else {
        Trace("ERROR:Didn't get text of window title. Error = %d, result = %d",
              static_cast<int>(GetLastError()), static_cast<int>(answer));
    }
    // The enumeration reports failure when it is stopped; error 0 tells that apart from a real one.
    SetLastError(0);
    return FALSE;
}

std::string GetMainWindowTitle() {
    HWND window = nullptr;
    if (!EnumWindows(FindMainWindowProc, reinterpret_cast<LPARAM>(&window)) && GetLastError() != 0) {
        Trace("ERROR:Failed to enumerate windows. Error = %d\n", static_cast<int>(GetLastError()));
        return "<Unknown>";
    }
    if (window == nullptr) return "<Unknown>";

    DWORD_PTR answer = 0;
    if (!AskForTitle(window, kTitleMilliseconds, answer)) {
        Trace("ERROR:Failed to get main window title text. Hwnd = %d. Error = %d, text=%s\n",
              static_cast<int>(reinterpret_cast<ULONG_PTR>(window)), static_cast<int>(GetLastError()),
              TitleBuffer);
        return "<Unknown>";
    }
    const std::string_view title = TitleBuffer;
    const bool mayBeCut = title.size() + 1 >= kTitleLimit;  // the limit counts the text's end
    return std::string(title.substr(0, mayBeCut ? WithoutPartialCharacter(title) : title.size()));
}
