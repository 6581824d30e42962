// Completion ports, as Windows documents them.
#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>
#include <iterator>

#include "tests/platform/kernel/test_handle.h"

namespace {

HANDLE NewPort() {
    return CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
}

}  // namespace

TEST(CompletionPort, GivesPacketsBackAsPostedAndInOrder) {
    TestHandle port(NewPort());
    OVERLAPPED first = {}, second = {};
    EXPECT_TRUE(PostQueuedCompletionStatus(port, 0xFFFFFFFF, 0, nullptr));
    EXPECT_TRUE(PostQueuedCompletionStatus(port, 10, 77, &first));
    EXPECT_TRUE(PostQueuedCompletionStatus(port, 0, ~ULONG_PTR{0}, &second));
    DWORD bytes = 1;
    ULONG_PTR key = 1;
    OVERLAPPED* overlapped = &first;
    EXPECT_TRUE(GetQueuedCompletionStatus(port, &bytes, &key, &overlapped, INFINITE));
    EXPECT_TRUE(bytes == 0xFFFFFFFF && key == 0 && overlapped == nullptr);
    EXPECT_TRUE(GetQueuedCompletionStatus(port, &bytes, &key, &overlapped, 0));
    EXPECT_TRUE(bytes == 10 && key == 77 && overlapped == &first);
    EXPECT_TRUE(GetQueuedCompletionStatus(port, &bytes, &key, &overlapped, 0));
    EXPECT_TRUE(bytes == 0 && key == ~ULONG_PTR{0} && overlapped == &second);

    EXPECT_FALSE(GetQueuedCompletionStatus(port, &bytes, &key, &overlapped, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_EQ(overlapped, nullptr);
}

TEST(CompletionPort, EveryPacketReachesExactlyOneThread) {
    constexpr ULONG_PTR kPackets = 5000;
    TestHandle port(NewPort());
    std::atomic<ULONG_PTR> sum{0};
    auto worker = [&] {
        for (;;) {
            DWORD bytes;
            ULONG_PTR key;
            OVERLAPPED* overlapped;
            if (!GetQueuedCompletionStatus(port, &bytes, &key, &overlapped, INFINITE)) return 1;
            if (key == 0) return 0;
            sum += key;
        }
    };
    const TestHandle threads[] = {TestHandle(StartThread(&worker)), TestHandle(StartThread(&worker)),
                                  TestHandle(StartThread(&worker)), TestHandle(StartThread(&worker))};
    for (ULONG_PTR i = 1; i <= kPackets; ++i)
        PostQueuedCompletionStatus(port, 0, i, nullptr);
    for (std::size_t i = 0; i < std::size(threads); ++i)
        PostQueuedCompletionStatus(port, 0, 0, nullptr);
    for (const TestHandle& thread : threads)
        EXPECT_EQ(EndOf(thread), 0u);
    EXPECT_EQ(sum, kPackets * (kPackets + 1) / 2);
}

TEST(CompletionPort, ClosingEndsTheWaitsForIt) {
    HANDLE port = NewPort();
    TestHandle started(NewEvent(true));
    DWORD error = 0;
    auto waiter = [&] {
        DWORD bytes;
        ULONG_PTR key;
        OVERLAPPED* overlapped;
        SetEvent(started);
        const BOOL result = GetQueuedCompletionStatus(port, &bytes, &key, &overlapped, kPatience);
        error = GetLastError();
        return result;
    };
    TestHandle thread(StartThread(&waiter));
    WaitForSingleObject(started, kPatience);
    CloseHandle(port);
    EXPECT_EQ(EndOf(thread), static_cast<DWORD>(FALSE));
    // Invalid when the wait had not begun yet.
    EXPECT_TRUE(error == ERROR_ABANDONED_WAIT_0 || error == ERROR_INVALID_HANDLE) << error;
    EXPECT_FALSE(PostQueuedCompletionStatus(port, 0, 0, nullptr));
}

TEST(CompletionPort, WhatIsNoFileIsNotAssociated) {
    TestHandle port(NewPort()), event(NewEvent(true));
    EXPECT_EQ(CreateIoCompletionPort(event, port, 1, 0), nullptr);
    EXPECT_NE(GetLastError(), 0u);
    EXPECT_EQ(CreateIoCompletionPort(INVALID_HANDLE_VALUE, port, 1, 0), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    DWORD bytes;
    ULONG_PTR key;
    OVERLAPPED* overlapped;
    EXPECT_FALSE(GetQueuedCompletionStatus(event, &bytes, &key, &overlapped, 0)) << "an event is no port";
}
