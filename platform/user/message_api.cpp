// Message loops as the Windows API has them.
#include <windows.h>

#include <new>

#include "platform/kernel/fault_points.h"
#include "platform/kernel/last_error.h"
#include "platform/user/window.h"

namespace platform {

namespace {

MSG MessageOf(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    MSG result{};
    result.hwnd = window;
    result.message = message;
    result.wParam = wParam;
    result.lParam = lParam;
    return result;
}

bool IsNoWindow(HWND filter) {
    return filter != nullptr && filter != reinterpret_cast<HWND>(static_cast<INT_PTR>(-1)) &&
           FindWindowByHandle(filter) == nullptr;
}

DWORD PostTo(HWND window, const MSG& message) {
    if (window == nullptr) return MessageQueue::OfCurrentThread()->Post(message);
    const std::shared_ptr<Window> found = FindWindowByHandle(window);
    return found == nullptr ? ERROR_INVALID_WINDOW_HANDLE : found->queue->Post(message);
}

}  // namespace

}  // namespace platform

using platform::Fail;
using platform::MessageQueue;
using platform::PlatformCall;

BOOL GetMessageA(LPMSG message, HWND window, UINT first, UINT last) {
    PlatformCall call("GetMessageA", ERROR_INVALID_WINDOW_HANDLE);
    if (call.Fails()) return -1;
    if (platform::IsNoWindow(window)) return Fail<BOOL>(ERROR_INVALID_WINDOW_HANDLE, -1);
    try {
        switch (MessageQueue::OfCurrentThread()->Wait(message, {window, first, last})) {
            case MessageQueue::Taken::kMessage:
                return TRUE;
            case MessageQueue::Taken::kQuit:
                return FALSE;
            case MessageQueue::Taken::kNone:
                break;
        }
    } catch (const std::bad_alloc&) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    }
    return -1;
}

BOOL PeekMessageA(LPMSG message, HWND window, UINT first, UINT last, UINT remove) {
    PlatformCall call("PeekMessageA", ERROR_INVALID_WINDOW_HANDLE);
    if (call.Fails()) return FALSE;
    if (platform::IsNoWindow(window)) return Fail(ERROR_INVALID_WINDOW_HANDLE);
    try {
        const auto taken =
            MessageQueue::OfCurrentThread()->Look(message, {window, first, last}, (remove & PM_REMOVE) != 0);
        return taken != MessageQueue::Taken::kNone ? TRUE : FALSE;
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY);
    }
}

BOOL TranslateMessage(const MSG*) {
    return FALSE;
}

LRESULT DispatchMessageA(const MSG* message) {
    const platform::PlatformScope scope;
    if (message->hwnd == nullptr) return 0;
    LRESULT answer = 0;
    if (!platform::CallWindow(*message, &answer)) SetLastError(ERROR_INVALID_WINDOW_HANDLE);
    return answer;
}

BOOL PostMessageA(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    PlatformCall call("PostMessageA", ERROR_NOT_ENOUGH_QUOTA);
    if (call.Fails()) return FALSE;
    try {
        const DWORD error = platform::PostTo(window, platform::MessageOf(window, message, wParam, lParam));
        return error == 0 ? TRUE : Fail(error);
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY);
    }
}

VOID PostQuitMessage(int exitCode) {
    const platform::PlatformScope scope;
    try {
        MessageQueue::OfCurrentThread()->PostQuit(exitCode);
    } catch (const std::bad_alloc&) {
        // A thread without a queue has nothing to quit.
    }
}

LRESULT SendMessageA(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    PlatformCall call("SendMessageA", ERROR_INVALID_WINDOW_HANDLE);
    if (call.Fails()) return 0;
    LRESULT answer = 0;
    try {
        const DWORD error = platform::SendToWindow(platform::MessageOf(window, message, wParam, lParam),
                                                   platform::kNoDeadline, &answer);
        return error == 0 ? answer : Fail<LRESULT>(error, 0);
    } catch (const std::bad_alloc&) {
        return Fail<LRESULT>(ERROR_NOT_ENOUGH_MEMORY, 0);
    }
}
