// The hidden window's thread: its start, its message loop and its end.
#include "provider/window/async_window.h"

#include <cstdio>
#include <utility>

#include "base/locker.h"
#include "base/process_locks.h"
#include "provider/process_state.h"
#include "provider/window/network_event.h"
#include "provider/window/window_life.h"

namespace {

constexpr DWORD kFailedExitCode = 0xFFFFFFFF;
constexpr DWORD kStopMilliseconds = 10000;

/// How long the first caller waits for the window. A thread can't begin while the loader's lock is held, as
/// by a library that asks for events while it is loaded, and that one would wait for ever.
constexpr DWORD kStartMilliseconds = 10000;

/// The life in force; null before the first start.
WindowLife* CurrentLife QX_GUARDED_BY(qx::GlobalLock) = nullptr;
bool IsAllowed QX_GUARDED_BY(qx::GlobalLock) = false;
/// A thread could not make its window. It is not tried again while the library is loaded.
bool HasFailed QX_GUARDED_BY(qx::GlobalLock) = false;

/// The class of the window, named for the process.
class ClassName {
  public:
    ClassName() {
        std::snprintf(text_, sizeof(text_), "Layered WS2 Provider 0x%08x",
                      static_cast<unsigned>(GetCurrentProcessId()));
    }
    const char* c_str() const { return text_; }

  private:
    char text_[32];
};

LRESULT CALLBACK HiddenWindowProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    switch (message) {
        case kNetworkEventMessage: {
            const auto* const life =
                reinterpret_cast<const WindowLife*>(GetWindowLongPtrA(window, GWLP_USERDATA));
            if (life != nullptr && ForwardNetworkEvent(*life, static_cast<SOCKET>(wParam), lParam)) return 0;
            return DefWindowProcA(window, message, wParam, lParam);
        }
        case WM_CLOSE:
            // Somebody closes every window of the process; its sockets must not fall silent with that.
            return 0;
        case WM_DESTROY:
            PostQuitMessage(0);
            return 0;
        default:
            return DefWindowProcA(window, message, wParam, lParam);
    }
}

/// A class that is still there from a thread that nobody awaited is the same one: classes are told apart by
/// the library, too.
bool RegisterWindowClass(const ClassName& name) {
    WNDCLASSA windowClass{};
    windowClass.lpfnWndProc = HiddenWindowProcedure;
    windowClass.hInstance = ModuleHandle;
    windowClass.lpszClassName = name.c_str();
    return RegisterClassA(&windowClass) != 0 || GetLastError() == ERROR_CLASS_ALREADY_EXISTS;
}

bool MakeWindow(const ClassName& name, WindowLife* life) {
    const HWND window =
        CreateWindowExA(0, name.c_str(), "Layered Hidden Window", WS_OVERLAPPEDWINDOW, CW_USEDEFAULT,
                        CW_USEDEFAULT, CW_USEDEFAULT, CW_USEDEFAULT, nullptr, nullptr, ModuleHandle, nullptr);
    if (window == nullptr) return false;
    SetWindowLongPtrA(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(life));
    life->Window.Publish(window);
    return true;
}

/// Until the window is destroyed, or the thread is to end and a message makes it look.
void RunMessageLoop(const WindowLife& life) {
    MSG message;
    while (GetMessageA(&message, nullptr, 0, 0) > 0) {
        TranslateMessage(&message);
        DispatchMessageA(&message);
        if (life.State.Acquire() == WindowLife::Phase::kEnding) return;
    }
}

void EndWindow(WindowLife* life) {
    DestroyWindow(life->Window.Exchange(nullptr));
}

/// The thread's exit code.
DWORD RunWindow(WindowLife* life) {
    const ClassName name;
    if (!RegisterWindowClass(name)) return kFailedExitCode;
    const bool made = MakeWindow(name, life);
    if (made) {
        if (life->State.StoreIfStill(WindowLife::Phase::kStarting, WindowLife::Phase::kRunning)) {
            SetEvent(life->Ready);
            RunMessageLoop(*life);
        }
        EndWindow(life);
    }
    UnregisterClassA(name.c_str(), ModuleHandle);
    return made ? 0 : kFailedExitCode;
}

DWORD WINAPI WindowThread(LPVOID argument) {
    auto* const life = static_cast<WindowLife*>(argument);
    const HMODULE library = life->Library;
    const DWORD thread = GetCurrentThreadId();
    HiddenWindowThread = thread;
    const DWORD exitCode = RunWindow(life);
    HiddenWindowThread.StoreIfStill(thread, 0);
    life->State.StoreIfStill(WindowLife::Phase::kStarting, WindowLife::Phase::kFailed);
    SetEvent(life->Ready);
    SetEvent(life->Done);
    ReleaseWindowLife(life);
    FreeLibraryAndExitThread(library, exitCode);
}

/// Null when there is no thread to be had; the next call tries again.
WindowLife* StartWindowThread() {
    WindowLife* const life = MakeWindowLife();
    if (life == nullptr) return nullptr;
    // The thread's; it may be gone before the call returns.
    life->Holders.Increment();
    life->Thread = CreateThread(nullptr, 0, WindowThread, life, 0, &life->ThreadId);
    if (life->Thread != nullptr) return life;
    FreeLibrary(life->Library);
    life->Holders.Decrement();
    ReleaseWindowLife(life);
    return nullptr;
}

/// The life in force, held once more for the caller, or null.
WindowLife* HoldCurrentLife() {
    const Locker lock(qx::GlobalLock);
    if (!IsAllowed || HasFailed) return nullptr;
    if (CurrentLife == nullptr) CurrentLife = StartWindowThread();
    if (CurrentLife != nullptr) CurrentLife->Holders.Increment();
    return CurrentLife;
}

/// Tells the thread of a life that has its window to end. It looks when a message comes.
void TellToEnd(const WindowLife& life) {
    const HWND window = life.Window.Acquire();
    if (window != nullptr && !PostMessageA(window, WM_DESTROY, 0, 0)) PostMessageA(window, WM_DESTROY, 0, 0);
}

void AwaitEnd(const WindowLife& life) {
    // A hook of the application's may have come to its last clean-up on the window's own thread.
    if (GetCurrentThreadId() == life.ThreadId) return;
    // It can't end while the loader's lock is held, but it can be done.
    const HANDLE ends[] = {life.Thread, life.Done};
    WaitForMultipleObjects(2, ends, FALSE, kStopMilliseconds);
}

}  // namespace

void AllowAsyncWindow() {
    const Locker lock(qx::GlobalLock);
    IsAllowed = true;
}

HWND StartAsyncWindow() {
    WindowLife* const life = HoldCurrentLife();
    if (life == nullptr) return nullptr;
    // Without GlobalLock: the thread may need the loader's lock to begin, and hooks in it other locks; who
    // has those may be waiting for ours.
    const HANDLE ends[] = {life->Ready, life->Thread};
    if (life->Window.Acquire() == nullptr) WaitForMultipleObjects(2, ends, FALSE, kStartMilliseconds);
    const HWND window = life->Window.Acquire();
    ReleaseWindowLife(life);
    return window;
}

void StopAsyncWindow() {
    WindowLife* life;
    {
        const Locker lock(qx::GlobalLock);
        IsAllowed = false;
        life = std::exchange(CurrentLife, nullptr);
        if (life == nullptr) return;
        HasFailed = life->State.Acquire() == WindowLife::Phase::kFailed;
    }
    // A process that ends has ended the thread, and perhaps what its window was made of.
    const bool hasThread = WaitForSingleObject(life->Thread, 0) != WAIT_OBJECT_0;
    SetEvent(life->Stop);
    const bool wasStarting =
        life->State.StoreIfStill(WindowLife::Phase::kStarting, WindowLife::Phase::kEnding);
    const bool wasRunning = life->State.StoreIfStill(WindowLife::Phase::kRunning, WindowLife::Phase::kEnding);
    // One that is only starting sees it before it looks for messages.
    if (hasThread && wasRunning && !wasStarting) {
        TellToEnd(*life);
        AwaitEnd(*life);
    }
    ReleaseWindowLife(life);
}

void ForgetAsyncWindow() QX_NO_THREAD_SAFETY_ANALYSIS {
    CurrentLife = nullptr;
    IsAllowed = false;
    HasFailed = false;
}
