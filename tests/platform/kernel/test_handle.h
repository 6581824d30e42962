// Handles that close themselves, and threads by their handles, for tests.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

class TestHandle {
  public:
    explicit TestHandle(HANDLE handle) : handle_(handle) {}
    ~TestHandle() {
        if (handle_ != nullptr) CloseHandle(handle_);
    }
    TestHandle(const TestHandle&) = delete;
    TestHandle& operator=(const TestHandle&) = delete;

    operator HANDLE() const { return handle_; }

  private:
    const HANDLE handle_;
};

/// Long enough for anything that is to happen, short enough for the test's own deadline.
constexpr DWORD kPatience = 20000;

inline HANDLE NewEvent(bool manualReset, bool signaled = false) {
    return CreateEventA(nullptr, manualReset ? TRUE : FALSE, signaled ? TRUE : FALSE, nullptr);
}

/// Runs a callable on a thread of its own; joined by waiting for the handle.
template <class Callable>
HANDLE StartThread(Callable* callable, DWORD* threadId = nullptr) {
    return CreateThread(
        nullptr, 0,
        [](LPVOID parameter)
            WINAPI -> DWORD { return static_cast<DWORD>((*static_cast<Callable*>(parameter))()); },
        callable, 0, threadId);
}

/// Waits for the thread's end; its exit code.
inline DWORD EndOf(HANDLE thread) {
    EXPECT_EQ(WaitForSingleObject(thread, kPatience), WAIT_OBJECT_0);
    DWORD code = 9;
    EXPECT_TRUE(GetExitCodeThread(thread, &code));
    return code;
}

/// Runs a callable on a thread of its own to its end; its exit code.
template <class Callable>
DWORD RunOnThread(Callable* callable) {
    const TestHandle thread(StartThread(callable));
    return EndOf(thread);
}
