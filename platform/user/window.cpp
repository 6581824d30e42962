// See window.h.
#include "platform/user/window.h"

#include <strings.h>

#include <algorithm>
#include <map>

#include "platform/kernel/fault_points.h"

namespace platform {

namespace {

constexpr ULONG_PTR kFirstHandle = 0x00100002;  // far above those of the machine's windows
constexpr ULONG_PTR kHandleStep = 2;
constexpr ATOM kFirstAtom = 0xC000;

struct WindowTable {
    std::mutex lock;  // leaf; guards everything here
    std::map<HWND, std::shared_ptr<Window>> windows;
    std::vector<std::shared_ptr<const WindowClass>> classes;
    ULONG_PTR nextHandle = kFirstHandle;
    ATOM nextAtom = kFirstAtom;
};

WindowTable& TheTable() {
    static WindowTable* const table = new WindowTable;
    return *table;
}

bool IsNamed(const WindowClass& windowClass, LPCSTR name) {
    const auto atom = reinterpret_cast<ULONG_PTR>(name);
    return atom < 0x10000 ? windowClass.atom == atom : strcasecmp(windowClass.name.c_str(), name) == 0;
}

auto FindClassLocked(WindowTable& table, LPCSTR name, HINSTANCE instance) {
    return std::find_if(table.classes.begin(), table.classes.end(),
                        [name, instance](const std::shared_ptr<const WindowClass>& candidate) {
                            return candidate->instance == instance && IsNamed(*candidate, name);
                        });
}

}  // namespace

DWORD AddClass(const WNDCLASSA& description, ATOM* atom) {
    const auto nameAsAtom = reinterpret_cast<ULONG_PTR>(description.lpszClassName);
    if (description.lpfnWndProc == nullptr || nameAsAtom < 0x10000) return ERROR_INVALID_PARAMETER;
    auto added = std::make_shared<WindowClass>();
    added->name = description.lpszClassName;
    added->instance = description.hInstance;
    added->procedure = description.lpfnWndProc;
    WindowTable& table = TheTable();
    const std::lock_guard<std::mutex> holder(table.lock);
    if (FindClassLocked(table, added->name.c_str(), added->instance) != table.classes.end())
        return ERROR_CLASS_ALREADY_EXISTS;
    added->atom = table.nextAtom;
    table.classes.push_back(added);
    ++table.nextAtom;
    *atom = added->atom;
    return 0;
}

DWORD RemoveClass(LPCSTR name, HINSTANCE instance) {
    WindowTable& table = TheTable();
    const std::lock_guard<std::mutex> holder(table.lock);
    const auto found = FindClassLocked(table, name, instance);
    if (found == table.classes.end()) return ERROR_CLASS_DOES_NOT_EXIST;
    for (const auto& [handle, window] : table.windows) {
        if (window->windowClass == *found) return ERROR_CLASS_HAS_WINDOWS;
    }
    table.classes.erase(found);
    return 0;
}

std::shared_ptr<const WindowClass> FindClass(LPCSTR name, HINSTANCE instance) {
    WindowTable& table = TheTable();
    const std::lock_guard<std::mutex> holder(table.lock);
    const auto found = FindClassLocked(table, name, instance);
    return found == table.classes.end() ? nullptr : *found;
}

void AddWindow(const std::shared_ptr<Window>& window) {
    WindowTable& table = TheTable();
    const std::lock_guard<std::mutex> holder(table.lock);
    window->handle = reinterpret_cast<HWND>(table.nextHandle);
    table.windows.emplace(window->handle, window);
    table.nextHandle += kHandleStep;
}

void RemoveWindow(const Window& window) {
    {
        WindowTable& table = TheTable();
        const std::lock_guard<std::mutex> holder(table.lock);
        table.windows.erase(window.handle);
    }
    window.queue->ForgetWindow(window.handle);
}

std::shared_ptr<Window> FindWindowByHandle(HWND handle) {
    WindowTable& table = TheTable();
    const std::lock_guard<std::mutex> holder(table.lock);
    const auto found = table.windows.find(handle);
    return found == table.windows.end() ? nullptr : found->second;
}

std::vector<std::shared_ptr<Window>> AllWindows() {
    std::vector<std::shared_ptr<Window>> windows;
    WindowTable& table = TheTable();
    const std::lock_guard<std::mutex> holder(table.lock);
    windows.reserve(table.windows.size());
    for (auto window = table.windows.rbegin(); window != table.windows.rend(); ++window)
        windows.push_back(window->second);
    return windows;
}

void DropWindowsOf(const MessageQueue& queue) {
    WindowTable& table = TheTable();
    const std::lock_guard<std::mutex> holder(table.lock);
    for (auto window = table.windows.begin(); window != table.windows.end();)
        window = window->second->queue.get() == &queue ? table.windows.erase(window) : std::next(window);
}

bool CallWindow(const MSG& message, LRESULT* answer) {
    const std::shared_ptr<Window> window = FindWindowByHandle(message.hwnd);
    if (window == nullptr) return false;
    const ProviderBoundary boundary;
    *answer = window->windowClass->procedure(message.hwnd, message.message, message.wParam, message.lParam);
    return true;
}

DWORD SendToWindow(const MSG& message, Deadline deadline, LRESULT* answer) {
    const std::shared_ptr<Window> window = FindWindowByHandle(message.hwnd);
    if (window == nullptr) return ERROR_INVALID_WINDOW_HANDLE;
    if (window->queue == MessageQueue::OfCurrentThread())
        return CallWindow(message, answer) ? 0 : ERROR_INVALID_WINDOW_HANDLE;
    return window->queue->Send(message, deadline, answer);
}

}  // namespace platform
