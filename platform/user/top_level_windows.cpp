// Top-level windows: those that the machine scripts, then those that this process has made. A scripted
// window's handle is made of its place in the machine's list.
#include "platform/user/top_level_windows.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "platform/kernel/clock.h"
#include "platform/kernel/fault_points.h"
#include "platform/kernel/last_error.h"
#include "platform/system/machine.h"
#include "platform/user/process_windows.h"

namespace platform {

namespace {

constexpr ULONG_PTR kFirstWindow = 0x10010;
constexpr ULONG_PTR kWindowStep = 2;
constexpr DWORD kForeignThread = 1;

HWND ToWindow(std::size_t index) {
    return reinterpret_cast<HWND>(kFirstWindow + index * kWindowStep);
}

/// The window behind a handle, or null. `machine` keeps it alive.
const MachineWindow* FromWindow(const Machine& machine, HWND window) {
    const ULONG_PTR offset = reinterpret_cast<ULONG_PTR>(window) - kFirstWindow;
    if (offset % kWindowStep != 0 || offset / kWindowStep >= machine.windows.size()) return nullptr;
    return &machine.windows[offset / kWindowStep];
}

/// Answers as the window's own thread would.
LRESULT Answer(const MachineWindow& window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == WM_GETTEXTLENGTH) return static_cast<LRESULT>(window.title.size());
    if (message != WM_GETTEXT || wParam == 0) return 0;
    const std::size_t copied = std::min<std::size_t>(window.title.size(), wParam - 1);
    char* text = reinterpret_cast<char*>(lParam);
    std::memcpy(text, window.title.data(), copied);
    text[copied] = 0;
    return static_cast<LRESULT>(copied);
}

}  // namespace

}  // namespace platform

using platform::Fail;
using platform::FromWindow;
using platform::PlatformCall;

BOOL StandInEnumWindows(WNDENUMPROC procedure, LPARAM parameter) {
    PlatformCall call("EnumWindows", ERROR_NOT_ENOUGH_MEMORY);
    if (call.Fails()) return FALSE;
    const std::size_t count = platform::TheMachine()->windows.size();
    for (std::size_t i = 0; i < count; ++i) {
        const platform::ProviderBoundary boundary;
        if (procedure(platform::ToWindow(i), parameter) == FALSE) return FALSE;
    }
    for (const HWND window : platform::TopLevelWindowsOfProcess()) {
        const platform::ProviderBoundary boundary;
        if (procedure(window, parameter) == FALSE) return FALSE;
    }
    return TRUE;
}

DWORD StandInGetWindowThreadProcessId(HWND window, LPDWORD processId) {
    PlatformCall call("GetWindowThreadProcessId", ERROR_INVALID_WINDOW_HANDLE);
    if (call.Fails()) return 0;
    const auto machine = platform::TheMachine();
    const platform::MachineWindow* found = FromWindow(*machine, window);
    if (found == nullptr) {
        if (!platform::IsProcessWindow(window)) return Fail<DWORD>(ERROR_INVALID_WINDOW_HANDLE, 0);
        if (processId != nullptr) *processId = GetCurrentProcessId();
        return platform::ThreadOfProcessWindow(window);
    }
    if (processId != nullptr) *processId = found->process != 0 ? found->process : GetCurrentProcessId();
    return platform::kForeignThread;
}

HWND StandInGetAncestor(HWND window, UINT flags) {
    PlatformCall call("GetAncestor", ERROR_INVALID_WINDOW_HANDLE);
    if (call.Fails()) return nullptr;
    const auto machine = platform::TheMachine();
    const platform::MachineWindow* found = FromWindow(*machine, window);
    const bool isReal = found == nullptr && platform::IsProcessWindow(window);
    if (found == nullptr && !isReal) return Fail<HWND>(ERROR_INVALID_WINDOW_HANDLE, nullptr);
    // A top-level window's parent is the desktop, which the stand-in has no handle for.
    if (flags == GA_PARENT) return nullptr;
    if (flags == GA_ROOT) return window;
    if (flags != GA_ROOTOWNER) return Fail<HWND>(ERROR_INVALID_PARAMETER, nullptr);
    if (isReal) return platform::RootOwnerOfProcessWindow(window);
    while (found->owner >= 0) {
        window = platform::ToWindow(static_cast<std::size_t>(found->owner));
        found = FromWindow(*machine, window);
        if (found == nullptr) return nullptr;
    }
    return window;
}

LRESULT StandInSendMessageTimeoutA(HWND window, UINT message, WPARAM wParam, LPARAM lParam, UINT,
                                   UINT timeout, PDWORD_PTR result) {
    PlatformCall call("SendMessageTimeoutA", ERROR_TIMEOUT);
    if (call.Fails()) return 0;
    const auto machine = platform::TheMachine();
    const platform::MachineWindow* found = FromWindow(*machine, window);
    LRESULT answer = 0;
    if (found == nullptr) {
        const MSG sent = {window, message, wParam, lParam, 0, {0, 0}};
        const DWORD error = platform::SendToProcessWindow(sent, timeout, &answer);
        if (error != 0) return Fail<LRESULT>(error, 0);
    } else if (found->hung) {
        platform::SleepOnClock(timeout);
        return Fail<LRESULT>(ERROR_TIMEOUT, 0);
    } else {
        answer = platform::Answer(*found, message, wParam, lParam);
    }
    if (result != nullptr) *result = static_cast<DWORD_PTR>(answer);
    return 1;
}

BOOL StandInIsWindow(HWND window) {
    const auto machine = platform::TheMachine();
    return FromWindow(*machine, window) != nullptr || platform::IsProcessWindow(window) ? TRUE : FALSE;
}
