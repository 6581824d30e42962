// The windows that this process has made, and their classes. A window belongs to the thread that made it:
// its procedure runs there alone, and it ends with the thread. Handles are never used again.
#pragma once

#include <windows.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/user/message_queue.h"

namespace platform {

struct WindowClass {
    std::string name;
    HINSTANCE instance = nullptr;
    WNDPROC procedure = nullptr;
    ATOM atom = 0;
};

struct Window {
    HWND handle = nullptr;
    std::shared_ptr<const WindowClass> windowClass;
    std::shared_ptr<MessageQueue> queue;  // of the owning thread
    HWND owner = nullptr;
    bool isPopup = false;
    bool messageOnly = false;

    std::mutex lock;  // leaf; guards the fields below
    std::string text;
    LONG_PTR userData = 0;
};

// ---- Classes

/// 0, ERROR_CLASS_ALREADY_EXISTS, ERROR_INVALID_PARAMETER. Throws std::bad_alloc.
DWORD AddClass(const WNDCLASSA& description, ATOM* atom);

/// 0, ERROR_CLASS_DOES_NOT_EXIST, ERROR_CLASS_HAS_WINDOWS. The name may be an atom.
DWORD RemoveClass(LPCSTR name, HINSTANCE instance);

std::shared_ptr<const WindowClass> FindClass(LPCSTR name, HINSTANCE instance);

// ---- Windows

/// Gives the window its handle and makes it known. Throws std::bad_alloc.
void AddWindow(const std::shared_ptr<Window>& window);
void RemoveWindow(const Window& window);
std::shared_ptr<Window> FindWindowByHandle(HWND handle);

/// The newest first.
std::vector<std::shared_ptr<Window>> AllWindows();

/// Without calling their procedures: their thread has ended.
void DropWindowsOf(const MessageQueue& queue);

/// Runs the window's procedure on the calling thread; false when there is no such window.
bool CallWindow(const MSG& message, LRESULT* answer);

/// Sends from any thread to any: 0 with `*answer`, or ERROR_INVALID_WINDOW_HANDLE, ERROR_TIMEOUT. Throws
/// std::bad_alloc.
DWORD SendToWindow(const MSG& message, Deadline deadline, LRESULT* answer);

}  // namespace platform
