// What only the stand-in promises of threads: a terminated one loses nothing but what it held itself, and
// those that it did not make cannot be terminated.
#include <windows.h>

#include <gtest/gtest.h>

#include <thread>

#include "platform/kernel/fault_points.h"
#include "platform/testing/resource_counts.h"
#include "tests/platform/kernel/test_handle.h"

TEST(NativeThread, TerminationLosesOnlyWhatTheThreadHeld) {
    const platform::ResourceCounts before = platform::CountResources();
    {
        TestHandle never(NewEvent(true)), inside(NewEvent(true));
        auto body = [&] {
            TestHandle lost(NewEvent(true));
            SetEvent(inside);
            const HANDLE both[] = {never, lost};
            return WaitForMultipleObjects(2, both, TRUE, INFINITE);
        };
        TestHandle thread(StartThread(&body));
        ASSERT_EQ(WaitForSingleObject(inside, kPatience), WAIT_OBJECT_0);
        EXPECT_TRUE(TerminateThread(thread, 77));
        ASSERT_EQ(WaitForSingleObject(thread, kPatience), WAIT_OBJECT_0);
    }
    platform::ResourceCounts allowed = before;
    ++allowed.events;
    EXPECT_EQ(platform::SettleTo(allowed), "");
}

TEST(NativeThread, OnlyMadeThreadsCanBeTerminated) {
    TestHandle started(NewEvent(true)), gate(NewEvent(true));
    HANDLE handle = nullptr;
    std::thread native([&] {
        DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &handle, 0, FALSE,
                        DUPLICATE_SAME_ACCESS);
        SetEvent(started);
        WaitForSingleObject(gate, kPatience);
    });
    WaitForSingleObject(started, kPatience);
    EXPECT_FALSE(TerminateThread(handle, 1));
    SetEvent(gate);
    native.join();
    CloseHandle(handle);
}

TEST(NativeThread, TerminatingAnEndedThreadDoesNothing) {
    auto body = []() -> DWORD { return 7; };
    const TestHandle thread(StartThread(&body));
    EXPECT_EQ(EndOf(thread), 7u);
    EXPECT_TRUE(TerminateThread(thread, 77));
    EXPECT_EQ(EndOf(thread), 7u);
    EXPECT_EQ(platform::PlatformScope::Attention.load() & platform::kTerminationAttention, 0u)
        << "every later call would pay for it";
}
