// See process_windows.h.
#include "platform/user/process_windows.h"

#include <new>

#include "platform/user/window.h"

namespace platform {

std::vector<HWND> TopLevelWindowsOfProcess() {
    std::vector<HWND> handles;
    for (const std::shared_ptr<Window>& window : AllWindows()) {
        if (!window->messageOnly) handles.push_back(window->handle);
    }
    return handles;
}

bool IsProcessWindow(HWND window) {
    return FindWindowByHandle(window) != nullptr;
}

DWORD ThreadOfProcessWindow(HWND window) {
    const std::shared_ptr<Window> found = FindWindowByHandle(window);
    return found != nullptr ? found->queue->threadId() : 0;
}

HWND RootOwnerOfProcessWindow(HWND window) {
    for (std::shared_ptr<Window> found = FindWindowByHandle(window); found != nullptr;
         found = FindWindowByHandle(window)) {
        // An owner is seen through the style of pop-up windows alone.
        if (found->owner == nullptr || !found->isPopup) return window;
        window = found->owner;
    }
    return nullptr;
}

DWORD SendToProcessWindow(const MSG& message, UINT milliseconds, LRESULT* answer) {
    try {
        return SendToWindow(message, DeadlineAfter(milliseconds), answer);
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
}

}  // namespace platform
