// Classes and windows as the Windows API has them.
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "platform/kernel/fault_points.h"
#include "platform/kernel/last_error.h"
#include "platform/user/window.h"

namespace platform {

namespace {

LRESULT CallWith(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    LRESULT answer = 0;
    MSG call{};
    call.hwnd = window;
    call.message = message;
    call.wParam = wParam;
    call.lParam = lParam;
    CallWindow(call, &answer);
    return answer;
}

bool IsOwnedByCurrentThread(const Window& window) {
    return window.queue->threadId() == GetCurrentThreadId();
}

/// Tells a window's procedure that it ends, and forgets it. Windows that it owns go first.
void EndWindow(const std::shared_ptr<Window>& window) {
    for (const std::shared_ptr<Window>& owned : AllWindows()) {
        if (owned->owner == window->handle && IsOwnedByCurrentThread(*owned)) EndWindow(owned);
    }
    CallWith(window->handle, WM_DESTROY, 0, 0);
    CallWith(window->handle, WM_NCDESTROY, 0, 0);
    RemoveWindow(*window);
}

/// Makes the window and asks its procedure twice. Null when that refuses, or with the last error.
HWND MakeWindow(const CREATESTRUCTA& creation) {
    auto window = std::make_shared<Window>();
    window->windowClass = FindClass(creation.lpszClass, creation.hInstance);
    if (window->windowClass == nullptr) return Fail<HWND>(ERROR_CANNOT_FIND_WND_CLASS, nullptr);
    window->messageOnly = creation.hwndParent == HWND_MESSAGE;
    if (!window->messageOnly && creation.hwndParent != nullptr) {
        if ((creation.style & WS_CHILD) != 0) return Fail<HWND>(ERROR_CALL_NOT_IMPLEMENTED, nullptr);
        if (FindWindowByHandle(creation.hwndParent) == nullptr)
            return Fail<HWND>(ERROR_INVALID_WINDOW_HANDLE, nullptr);
        window->owner = creation.hwndParent;
    }
    window->isPopup = (static_cast<DWORD>(creation.style) & WS_POPUP) != 0;
    window->queue = MessageQueue::OfCurrentThread();
    AddWindow(window);
    const auto argument = reinterpret_cast<LPARAM>(&creation);
    if (CallWith(window->handle, WM_NCCREATE, 0, argument) == FALSE) {
        RemoveWindow(*window);
        return nullptr;
    }
    if (CallWith(window->handle, WM_CREATE, 0, argument) == -1) {
        EndWindow(window);
        return nullptr;
    }
    return window->handle;
}

LRESULT StoreText(Window& window, const char* text) {
    std::string copy = text != nullptr ? text : "";
    const std::lock_guard<std::mutex> holder(window.lock);
    window.text.swap(copy);
    return TRUE;
}

std::string TextOf(Window& window) {
    const std::lock_guard<std::mutex> holder(window.lock);
    return window.text;
}

LRESULT GiveText(Window& window, WPARAM size, char* buffer) {
    if (size == 0) return 0;
    const std::string text = TextOf(window);
    const std::size_t copied = std::min<std::size_t>(text.size(), size - 1);
    std::memcpy(buffer, text.data(), copied);
    buffer[copied] = 0;
    return static_cast<LRESULT>(copied);
}

LRESULT AnswerByDefault(const std::shared_ptr<Window>& window, UINT message, WPARAM wParam, LPARAM lParam) {
    switch (message) {
        case WM_NCCREATE:
            return StoreText(*window, reinterpret_cast<const CREATESTRUCTA*>(lParam)->lpszName);
        case WM_SETTEXT:
            return StoreText(*window, reinterpret_cast<const char*>(lParam));
        case WM_GETTEXT:
            return GiveText(*window, wParam, reinterpret_cast<char*>(lParam));
        case WM_GETTEXTLENGTH:
            return static_cast<LRESULT>(TextOf(*window).size());
        case WM_CLOSE:
            if (IsOwnedByCurrentThread(*window)) EndWindow(window);
            return 0;
        case WM_QUERYENDSESSION:
            return TRUE;
        default:
            return 0;
    }
}

}  // namespace

}  // namespace platform

using platform::Fail;
using platform::FindWindowByHandle;
using platform::PlatformCall;
using platform::Window;

ATOM RegisterClassA(const WNDCLASSA* windowClass) {
    PlatformCall call("RegisterClassA", ERROR_NOT_ENOUGH_MEMORY);
    if (call.Fails()) return 0;
    try {
        ATOM atom = 0;
        const DWORD error = platform::AddClass(*windowClass, &atom);
        return error == 0 ? atom : Fail<ATOM>(error, 0);
    } catch (const std::bad_alloc&) {
        return Fail<ATOM>(ERROR_NOT_ENOUGH_MEMORY, 0);
    }
}

BOOL UnregisterClassA(LPCSTR className, HINSTANCE instance) {
    PlatformCall call("UnregisterClassA", ERROR_CLASS_DOES_NOT_EXIST);
    if (call.Fails()) return FALSE;
    const DWORD error = platform::RemoveClass(className, instance);
    return error == 0 ? TRUE : Fail(error);
}

HWND CreateWindowExA(DWORD exStyle, LPCSTR className, LPCSTR windowName, DWORD style, int x, int y, int width,
                     int height, HWND parent, HMENU menu, HINSTANCE instance, LPVOID parameter) {
    PlatformCall call("CreateWindowExA", ERROR_NOT_ENOUGH_MEMORY);
    if (call.Fails()) return nullptr;
    const CREATESTRUCTA creation = {
        parameter,  instance,  menu,   parent, height, width, y, x, static_cast<LONG>(style),
        windowName, className, exStyle};
    try {
        return platform::MakeWindow(creation);
    } catch (const std::bad_alloc&) {
        return Fail<HWND>(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    }
}

BOOL DestroyWindow(HWND window) {
    PlatformCall call("DestroyWindow", ERROR_INVALID_WINDOW_HANDLE);
    if (call.Fails()) return FALSE;
    const std::shared_ptr<Window> found = FindWindowByHandle(window);
    if (found == nullptr) return Fail(ERROR_INVALID_WINDOW_HANDLE);
    if (!platform::IsOwnedByCurrentThread(*found)) return Fail(ERROR_ACCESS_DENIED);
    platform::EndWindow(found);
    return TRUE;
}

LRESULT DefWindowProcA(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    const platform::PlatformScope scope;
    const std::shared_ptr<Window> found = FindWindowByHandle(window);
    if (found == nullptr) return Fail<LRESULT>(ERROR_INVALID_WINDOW_HANDLE, 0);
    return platform::AnswerByDefault(found, message, wParam, lParam);
}

LONG_PTR GetWindowLongPtrA(HWND window, int index) {
    const std::shared_ptr<Window> found = FindWindowByHandle(window);
    if (found == nullptr) return Fail<LONG_PTR>(ERROR_INVALID_WINDOW_HANDLE, 0);
    if (index != GWLP_USERDATA) return Fail<LONG_PTR>(ERROR_INVALID_INDEX, 0);
    const std::lock_guard<std::mutex> holder(found->lock);
    return found->userData;
}

LONG_PTR SetWindowLongPtrA(HWND window, int index, LONG_PTR value) {
    const std::shared_ptr<Window> found = FindWindowByHandle(window);
    if (found == nullptr) return Fail<LONG_PTR>(ERROR_INVALID_WINDOW_HANDLE, 0);
    if (index != GWLP_USERDATA) return Fail<LONG_PTR>(ERROR_INVALID_INDEX, 0);
    const std::lock_guard<std::mutex> holder(found->lock);
    return std::exchange(found->userData, value);
}

HWND FindWindowA(LPCSTR className, LPCSTR windowName) {
    PlatformCall call("FindWindowA", ERROR_NOT_ENOUGH_MEMORY);
    if (call.Fails()) return nullptr;
    for (const std::shared_ptr<Window>& window : platform::AllWindows()) {
        if (window->messageOnly) continue;
        if (className != nullptr && window->windowClass->name != className) continue;
        if (windowName != nullptr && platform::TextOf(*window) != windowName) continue;
        return window->handle;
    }
    return nullptr;
}
