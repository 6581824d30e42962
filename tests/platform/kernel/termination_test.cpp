// The forced end of threads, and threads that CreateThread did not make.
#include <windows.h>

#include <gtest/gtest.h>

#include <thread>

#include "tests/platform/kernel/test_handle.h"

TEST(Termination, EndsWaitsOfEveryKind) {
    TestHandle never(NewEvent(true)), port(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0));
    TestHandle started(CreateSemaphoreA(nullptr, 0, 4, nullptr));
    const auto start = [&] { ReleaseSemaphore(started, 1, nullptr); };
    auto event = [&] {
        start();
        return WaitForSingleObject(never, INFINITE);
    };
    auto sleep = [&] {
        start();
        return SleepEx(INFINITE, FALSE);
    };
    auto all = [&] {
        TestHandle other(NewEvent(true));
        const HANDLE two[] = {never, other};
        start();
        return WaitForMultipleObjects(2, two, TRUE, 600000);
    };
    auto packet = [&] {
        DWORD bytes;
        ULONG_PTR key;
        OVERLAPPED* overlapped;
        start();
        return GetQueuedCompletionStatus(port, &bytes, &key, &overlapped, INFINITE);
    };
    const TestHandle threads[] = {TestHandle(StartThread(&event)), TestHandle(StartThread(&sleep)),
                                  TestHandle(StartThread(&packet)), TestHandle(StartThread(&all))};
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(WaitForSingleObject(started, kPatience), WAIT_OBJECT_0);
    for (const TestHandle& thread : threads) {
        EXPECT_TRUE(TerminateThread(thread, 77));
        EXPECT_EQ(EndOf(thread), 77u);
    }
}

TEST(Termination, ReachesAThreadThatNeverWaits) {
    auto busy = []() -> DWORD {
        for (;;)
            CloseHandle(NewEvent(true));
    };
    TestHandle thread(StartThread(&busy));
    EXPECT_TRUE(TerminateThread(thread, 5));
    EXPECT_EQ(EndOf(thread), 5u);
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
    CloseHandle(handle);
    const TestHandle again(OpenThread(SYNCHRONIZE, FALSE, id));
    EXPECT_TRUE(again == nullptr || WaitForSingleObject(again, 0) == WAIT_OBJECT_0);
}
