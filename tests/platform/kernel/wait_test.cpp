// Events, semaphores and the wait functions, as Windows documents them.
#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "tests/platform/kernel/test_handle.h"
#include "tests/platform/wine.h"

TEST(Wait, ManualEventStaysSignaledAutoEventReleasesOnce) {
    TestHandle manual(NewEvent(true));
    EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(SetEvent(manual));
    EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(ResetEvent(manual));
    EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_TIMEOUT);

    TestHandle automatic(CreateEventW(nullptr, FALSE, TRUE, nullptr));
    EXPECT_EQ(WaitForSingleObject(automatic, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(automatic, 0), WAIT_TIMEOUT);
    // Two signals without a waiter between them are one.
    SetEvent(automatic);
    SetEvent(automatic);
    EXPECT_EQ(WaitForSingleObject(automatic, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(automatic, 0), WAIT_TIMEOUT);
}

TEST(Wait, SemaphoreCountsAndKeepsItsMaximum) {
    TestHandle semaphore(CreateSemaphoreA(nullptr, 1, 3, nullptr));
    LONG previous = -1;
    EXPECT_TRUE(ReleaseSemaphore(semaphore, 2, &previous));
    EXPECT_EQ(previous, 1);
    EXPECT_FALSE(ReleaseSemaphore(semaphore, 1, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_TOO_MANY_POSTS));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(WaitForSingleObject(semaphore, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(semaphore, 0), WAIT_TIMEOUT);
    EXPECT_EQ(CreateSemaphoreW(nullptr, 2, 1, nullptr), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST(Wait, AnyGivesTheLowestIndexAndConsumesOnlyThat) {
    TestHandle first(NewEvent(false)), second(NewEvent(false, true)), third(NewEvent(false, true));
    const HANDLE all[] = {first, second, third};
    EXPECT_EQ(WaitForMultipleObjects(3, all, FALSE, INFINITE), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(WaitForMultipleObjects(3, all, FALSE, INFINITE), WAIT_OBJECT_0 + 2);
    EXPECT_EQ(WaitForMultipleObjects(3, all, FALSE, 0), WAIT_TIMEOUT);
}

TEST(Wait, AllConsumesNothingUntilEverythingIsSignaled) {
    TestHandle first(NewEvent(false)), second(NewEvent(false));
    const HANDLE both[] = {first, second};
    SetEvent(first);
    EXPECT_EQ(WaitForMultipleObjects(2, both, TRUE, 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_OBJECT_0);

    auto waiter = [&] { return WaitForMultipleObjects(2, both, TRUE, kPatience); };
    TestHandle thread(StartThread(&waiter));
    SetEvent(first);
    SetEvent(second);
    EXPECT_EQ(EndOf(thread), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, 0), WAIT_TIMEOUT) << "both were consumed";
}

TEST(Wait, EverySignalOfAnAutoEventReleasesExactlyOneThread) {
    constexpr int kThreads = 6;
    TestHandle gate(NewEvent(false)), passed(CreateSemaphoreA(nullptr, 0, kThreads, nullptr));
    std::atomic<int> through{0};
    auto waiter = [&] {
        const DWORD result = WaitForSingleObject(gate, kPatience);
        ++through;
        ReleaseSemaphore(passed, 1, nullptr);
        return result;
    };
    std::vector<HANDLE> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.push_back(StartThread(&waiter));
    for (int i = 1; i <= kThreads; ++i) {
        SetEvent(gate);
        ASSERT_EQ(WaitForSingleObject(passed, kPatience), WAIT_OBJECT_0);
        EXPECT_EQ(through, i);
    }
    EXPECT_EQ(WaitForMultipleObjects(kThreads, threads.data(), TRUE, kPatience), WAIT_OBJECT_0);
    for (HANDLE thread : threads)
        CloseHandle(thread);
}

TEST(Wait, SignalsAndWaitsOfManyThreadsBalance) {
    constexpr int kRounds = 3000;
    TestHandle one(CreateSemaphoreA(nullptr, 0, kRounds, nullptr)),
        other(CreateSemaphoreA(nullptr, 0, kRounds, nullptr));
    const HANDLE both[] = {one, other};
    auto any = [&] {
        for (int i = 0; i < kRounds; ++i)
            if (WaitForMultipleObjects(2, both, FALSE, kPatience) > WAIT_OBJECT_0 + 1) return 1;
        return 0;
    };
    auto producer = [&] {
        for (int i = 0; i < kRounds; ++i)
            ReleaseSemaphore(both[i % 2], 1, nullptr);
        return 0;
    };
    const TestHandle threads[] = {TestHandle(StartThread(&any)), TestHandle(StartThread(&any)),
                                  TestHandle(StartThread(&producer)), TestHandle(StartThread(&producer))};
    for (const TestHandle& thread : threads)
        EXPECT_EQ(EndOf(thread), 0u);
    EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, 0), WAIT_TIMEOUT);
}

TEST(Wait, BadArgumentsFailWithTheirErrors) {
    HANDLE closed = NewEvent(true, true);
    EXPECT_TRUE(CloseHandle(closed));
    EXPECT_EQ(WaitForSingleObject(closed, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_FALSE(SetEvent(closed));
    EXPECT_FALSE(CloseHandle(closed));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));

    TestHandle event(NewEvent(true, true)), semaphore(CreateSemaphoreA(nullptr, 0, 1, nullptr));
    EXPECT_FALSE(SetEvent(semaphore));
    const std::vector<HANDLE> many(MAXIMUM_WAIT_OBJECTS + 1, event);
    EXPECT_EQ(WaitForMultipleObjects(MAXIMUM_WAIT_OBJECTS + 1, many.data(), FALSE, 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(WaitForMultipleObjects(0, many.data(), FALSE, 0), WAIT_FAILED);
    EXPECT_EQ(WaitForMultipleObjects(2, many.data(), FALSE, 0), WAIT_OBJECT_0)
        << "the same object twice, any";
}

TEST(Wait, RefusesAnEmptyReleaseAndAllOfTheSame) {
    TestHandle semaphore(CreateSemaphoreA(nullptr, 1, 3, nullptr));
    if (Keeps(Documented::kEmptyReleasesFail)) {
        EXPECT_FALSE(ReleaseSemaphore(semaphore, 0, nullptr));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    }
    const HANDLE twice[] = {semaphore, semaphore};
    if (Keeps(Documented::kWaitForAllWantsDifferentObjects)) {
        EXPECT_EQ(WaitForMultipleObjects(2, twice, TRUE, 0), WAIT_FAILED);
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    }
    EXPECT_EQ(WaitForSingleObject(semaphore, 0), WAIT_OBJECT_0) << "nothing was consumed";
}

TEST(Wait, DuplicatedHandlesNameOneObjectUntilTheLastIsClosed) {
    HANDLE original = NewEvent(false);
    HANDLE duplicate = nullptr;
    ASSERT_TRUE(DuplicateHandle(GetCurrentProcess(), original, GetCurrentProcess(), &duplicate, 0, FALSE,
                                DUPLICATE_SAME_ACCESS));
    EXPECT_NE(original, duplicate);
    SetEvent(original);
    CloseHandle(original);
    EXPECT_EQ(WaitForSingleObject(duplicate, 0), WAIT_OBJECT_0);
    DWORD flags = 99;
    EXPECT_TRUE(GetHandleInformation(duplicate, &flags));
    EXPECT_EQ(flags, 0u);
    CloseHandle(duplicate);
    EXPECT_FALSE(GetHandleInformation(duplicate, &flags));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
}
