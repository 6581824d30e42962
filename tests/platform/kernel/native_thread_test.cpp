// What the stand-in adds to threads: termination at platform calls, and identities of threads it did not
// make.
#include <windows.h>

#include <gtest/gtest.h>

#include <thread>

#include "platform/testing/clock.h"
#include "platform/testing/resource_counts.h"
#include "tests/platform/kernel/test_handle.h"

namespace {

DWORD ExitCode(HANDLE thread) {
    DWORD code = 0;
    GetExitCodeThread(thread, &code);
    return code;
}

}  // namespace

TEST(Termination, EndsWaitsOfEveryKind) {
    const platform::ResourceCounts before = platform::CountResources();
    {
        TestHandle never(NewEvent(true)), port(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0));
        const HANDLE both[] = {never, port};
        auto event = [&] { return WaitForSingleObject(never, INFINITE); };
        auto sleep = [&] { return SleepEx(INFINITE, FALSE); };
        auto all = [&] {
            TestHandle other(NewEvent(true));
            const HANDLE two[] = {never, other};
            return WaitForMultipleObjects(2, two, TRUE, 600000);
        };
        auto packet = [&] {
            DWORD bytes;
            ULONG_PTR key;
            OVERLAPPED* overlapped;
            return GetQueuedCompletionStatus(both[1], &bytes, &key, &overlapped, INFINITE);
        };
        const HANDLE threads[] = {StartThread(&event), StartThread(&sleep), StartThread(&packet),
                                  StartThread(&all)};
        for (HANDLE thread : threads) {
            EXPECT_TRUE(TerminateThread(thread, 77));
            ASSERT_EQ(WaitForSingleObject(thread, kPatience), WAIT_OBJECT_0);
            EXPECT_EQ(ExitCode(thread), 77u);
            CloseHandle(thread);
        }
    }
    // What the last thread held on its stack is lost, as on Windows.
    platform::ResourceCounts allowed = before;
    ++allowed.events;
    EXPECT_EQ(platform::SettleTo(allowed), "");
}

TEST(Termination, ReachesAThreadThatNeverWaits) {
    auto busy = []() -> DWORD {
        for (;;)
            CloseHandle(NewEvent(true));
    };
    TestHandle thread(StartThread(&busy));
    EXPECT_TRUE(TerminateThread(thread, 5));
    ASSERT_EQ(WaitForSingleObject(thread, kPatience), WAIT_OBJECT_0);
    EXPECT_EQ(ExitCode(thread), 5u);
}

TEST(AdoptedThreads, HaveAnIdentityThatEndsWithThem) {
    HANDLE handle = nullptr;
    DWORD id = 0;
    std::thread native([&] {
        id = GetCurrentThreadId();
        DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &handle, 0, FALSE,
                        DUPLICATE_SAME_ACCESS);
    });
    native.join();
    EXPECT_NE(id, GetCurrentThreadId());
    EXPECT_EQ(WaitForSingleObject(handle, 0), WAIT_OBJECT_0);
    EXPECT_FALSE(TerminateThread(handle, 1)) << "only made threads can be terminated";
    CloseHandle(handle);
    EXPECT_EQ(OpenThread(SYNCHRONIZE, FALSE, id), nullptr);
}

// Documented, but not kept by every system that these tests run on.
TEST(DocumentedRefusals, WithTheirErrors) {
    TestHandle semaphore(CreateSemaphoreA(nullptr, 1, 3, nullptr));
    EXPECT_FALSE(ReleaseSemaphore(semaphore, 0, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    const HANDLE twice[] = {semaphore, semaphore};
    EXPECT_EQ(WaitForMultipleObjects(2, twice, TRUE, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    BOOL used = FALSE;
    const WCHAR wide[] = {'a', 0};
    char text[4];
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, wide, -1, text, 4, nullptr, &used), 0);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}
