// The clock under a test's control: waits follow it, whichever way they wait.
#include <windows.h>

#include <gtest/gtest.h>

#include <chrono>

#include "platform/kernel/clock.h"
#include "platform/testing/clock.h"
#include "tests/platform/kernel/test_handle.h"

using platform::AdvanceClock;
using platform::ScopedClockRate;
using platform::WaitForTimedWaits;

namespace {

LONGLONG CalendarMilliseconds() {
    FILETIME time;
    GetSystemTimeAsFileTime(&time);
    return ((static_cast<LONGLONG>(time.dwHighDateTime) << 32) | time.dwLowDateTime) / 10000;
}

}  // namespace

TEST(Clock, StandsStillAndStepsForEveryReader) {
    const ScopedClockRate stopped(0);
    const DWORD ticks = GetTickCount();
    const LONGLONG calendar = CalendarMilliseconds();
#ifndef _WIN32
    LARGE_INTEGER before, after, frequency;
    QueryPerformanceCounter(&before);
#endif
    AdvanceClock(60000);
    EXPECT_EQ(GetTickCount() - ticks, 60000u);
    EXPECT_EQ(CalendarMilliseconds() - calendar, 60000);
#ifndef _WIN32
    // Nothing of the layer reads it, so on Windows it stays the system's.
    QueryPerformanceCounter(&after);
    QueryPerformanceFrequency(&frequency);
    EXPECT_EQ(after.QuadPart - before.QuadPart, 60 * frequency.QuadPart);
#endif
}

TEST(Clock, CalendarIsTheSystemsOwn) {
    const LONGLONG system = std::chrono::duration_cast<std::chrono::milliseconds>(
                                std::chrono::system_clock::now().time_since_epoch())
                                .count();
    const LONGLONG kMillisecondsTo1970 = 11644473600000;
    // Other tests may have stepped the clock forward, never back.
    EXPECT_GE(CalendarMilliseconds() - kMillisecondsTo1970 - system, -1000);
}

TEST(Clock, AStepEndsExactlyTheWaitsItPasses) {
    const ScopedClockRate stopped(0);
    TestHandle never(NewEvent(true)), port(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0));
    auto event = [&] { return WaitForSingleObject(never, 3000); };
    auto sleep = [] {
        Sleep(3000);
        return 0;
    };
#ifdef _WIN32
    // There nobody waits for a packet by the clock.
    auto packet = [&] { return WaitForSingleObject(never, 3000); };
#else
    auto packet = [&] {
        DWORD bytes;
        ULONG_PTR key;
        OVERLAPPED* overlapped;
        GetQueuedCompletionStatus(port, &bytes, &key, &overlapped, 3000);
        return GetLastError();
    };
#endif
    auto longer = [&] { return WaitForSingleObject(never, 600000); };
    const HANDLE threads[] = {StartThread(&event), StartThread(&sleep), StartThread(&packet)};
    TestHandle longThread(StartThread(&longer));
    ASSERT_TRUE(WaitForTimedWaits(4));
    AdvanceClock(2999);
    for (HANDLE thread : threads)
        EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_TIMEOUT);
    AdvanceClock(1);
    EXPECT_EQ(WaitForMultipleObjects(3, threads, TRUE, INFINITE), WAIT_OBJECT_0);
    const DWORD expected[] = {WAIT_TIMEOUT, 0, WAIT_TIMEOUT};
    for (int i = 0; i < 3; ++i) {
        DWORD code = 99;
        GetExitCodeThread(threads[i], &code);
        EXPECT_EQ(code, expected[i]);
        CloseHandle(threads[i]);
    }
    EXPECT_EQ(WaitForSingleObject(longThread, 0), WAIT_TIMEOUT);
    AdvanceClock(600000);
    EXPECT_EQ(WaitForSingleObject(longThread, INFINITE), WAIT_OBJECT_0);
}

TEST(Clock, AFasterClockShortensWaitsUnderWay) {
    auto sleeper = [] {
        Sleep(600000);
        return 0;
    };
    TestHandle thread(StartThread(&sleeper));
    ASSERT_TRUE(WaitForTimedWaits(1));
    const ScopedClockRate fast(1e6);
    EXPECT_EQ(WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
}

TEST(Clock, TranslatesDeadlinesForPolls) {
    const ScopedClockRate stopped(0);
    EXPECT_EQ(platform::PollTimeoutUntil(platform::DeadlineAfter(1000)), -1);
    EXPECT_EQ(platform::PollTimeoutUntil(platform::DeadlineAfter(0)), 0);
    const platform::Deadline deadline = platform::DeadlineAfter(100000);
    {
        const ScopedClockRate slow(10);
        const int timeout = platform::PollTimeoutUntil(deadline);
        EXPECT_GT(timeout, 5000);
        EXPECT_LE(timeout, 10001);
    }
    EXPECT_EQ(platform::PollTimeoutUntil(platform::kNoDeadline), -1);
}
