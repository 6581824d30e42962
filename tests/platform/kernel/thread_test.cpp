// Threads and asynchronous procedure calls, as Windows documents them.
#include <windows.h>

#include <gtest/gtest.h>

#include <vector>

#include "tests/platform/kernel/test_handle.h"

namespace {

std::vector<ULONG_PTR>* Order;

void CALLBACK Note(ULONG_PTR value) {
    Order->push_back(value);
}

HANDLE OwnThread() {
    return OpenThread(THREAD_ALL_ACCESS, FALSE, GetCurrentThreadId());
}

void CALLBACK EndThread(ULONG_PTR code) {
    ExitThread(static_cast<DWORD>(code));
}

class Apc : public ::testing::Test {
  protected:
    Apc() : self_(OwnThread()) { Order = &order_; }
    ~Apc() override { Order = nullptr; }

    std::vector<ULONG_PTR> order_;
    TestHandle self_;
};

}  // namespace

TEST(Thread, EndsWithItsCodeAndStaysSignaled) {
    TestHandle gate(NewEvent(true));
    DWORD inside = 0, outside = 0;
    auto body = [&] {
        inside = GetCurrentThreadId();
        WaitForSingleObject(gate, kPatience);
        return 7;
    };
    TestHandle thread(StartThread(&body, &outside));
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(thread, &code));
    EXPECT_EQ(code, static_cast<DWORD>(STILL_ACTIVE));
    EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_TIMEOUT);
    SetEvent(gate);
    EXPECT_EQ(EndOf(thread), 7u);
    EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_OBJECT_0);
    EXPECT_EQ(inside, outside);
    EXPECT_NE(inside, GetCurrentThreadId());
}

TEST(Thread, ExitThreadLeavesFromDeepInside) {
    // From inside a call that the system makes in the middle of one of its own functions.
    auto body = [] {
        TestHandle self(OwnThread());
        QueueUserAPC(EndThread, self, 42);
        SleepEx(INFINITE, TRUE);
        return 1;
    };
    EXPECT_EQ(RunOnThread(&body), 42u);
}

TEST(Thread, IsOpenedByIdWhileItsObjectLives) {
    DWORD id = 0;
    auto body = [] { return 3; };
    {
        TestHandle thread(StartThread(&body, &id));
        TestHandle second(OpenThread(SYNCHRONIZE, FALSE, id));
        ASSERT_NE(static_cast<HANDLE>(second), nullptr);
        EXPECT_EQ(WaitForSingleObject(second, kPatience), WAIT_OBJECT_0);
    }
    EXPECT_EQ(OpenThread(SYNCHRONIZE, FALSE, 0xFFFFFFF0), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST_F(Apc, RunsOnlyInAlertableWaitsInOrderAndAllAtOnce) {
    TestHandle event(NewEvent(true));
    for (ULONG_PTR i = 1; i <= 3; ++i)
        ASSERT_NE(QueueUserAPC(Note, self_, i), 0u);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObjectEx(event, 0, FALSE), WAIT_TIMEOUT);
    EXPECT_TRUE(order_.empty());
    EXPECT_EQ(WaitForSingleObjectEx(event, INFINITE, TRUE), WAIT_IO_COMPLETION);
    EXPECT_EQ(order_, (std::vector<ULONG_PTR>{1, 2, 3}));
    EXPECT_EQ(SleepEx(0, TRUE), 0u);
}

TEST_F(Apc, ASignaledObjectGoesFirst) {
    TestHandle event(NewEvent(false, true));
    QueueUserAPC(Note, self_, 1);
    EXPECT_EQ(WaitForSingleObjectEx(event, INFINITE, TRUE), WAIT_OBJECT_0);
    EXPECT_TRUE(order_.empty());
    EXPECT_EQ(SleepEx(INFINITE, TRUE), WAIT_IO_COMPLETION);
    EXPECT_EQ(order_.size(), 1u);
}

TEST_F(Apc, QueuedByAnApcRunsBeforeTheWaitReturns) {
    auto again = [](ULONG_PTR) CALLBACK {
        Note(1);
        TestHandle self(OwnThread());
        QueueUserAPC(Note, self, 2);
    };
    QueueUserAPC(again, self_, 0);
    EXPECT_EQ(SleepEx(0, TRUE), WAIT_IO_COMPLETION);
    EXPECT_EQ(order_, (std::vector<ULONG_PTR>{1, 2}));
}

TEST_F(Apc, WakesAnotherThreadsAlertableWait) {
    TestHandle started(NewEvent(true)), never(NewEvent(true)), other(NewEvent(true));
    const HANDLE both[] = {never, other};
    auto waiter = [&] {
        SetEvent(started);
        return WaitForMultipleObjectsEx(2, both, TRUE, kPatience, TRUE);
    };
    TestHandle thread(StartThread(&waiter));
    ASSERT_EQ(WaitForSingleObject(started, kPatience), WAIT_OBJECT_0);
    ASSERT_NE(QueueUserAPC(Note, thread, 5), 0u);
    EXPECT_EQ(EndOf(thread), WAIT_IO_COMPLETION);
    EXPECT_EQ(order_, (std::vector<ULONG_PTR>{5}));
    EXPECT_EQ(QueueUserAPC(Note, thread, 6), 0u) << "an ended thread takes no more";
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_GEN_FAILURE));
}

TEST(Thread, LastErrorIsItsOwn) {
    SetLastError(1234);
    auto body = [] {
        const DWORD initial = GetLastError();
        SetLastError(77);
        return initial;
    };
    const TestHandle thread(StartThread(&body));
    EXPECT_EQ(EndOf(thread), 0u);
    EXPECT_EQ(GetLastError(), 1234u);
}
