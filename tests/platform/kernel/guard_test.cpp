// Guarded calls: what faults inside is recovered with its code, and nothing else is disturbed.
#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "platform/guard/guarded_call.h"
#include "tests/platform/kernel/test_handle.h"

namespace {

volatile int* volatile Nowhere = nullptr;
volatile int Zero = 0, One = 1;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// Checkers of undefined behaviour would stop the division before the processor does.
__attribute__((noinline, no_sanitize("undefined"))) int DivideByZero() {
    return One / Zero;
}

__attribute__((noinline, no_sanitize("undefined"))) int ReadNowhere() {
    return *Nowhere;
}

}  // namespace

TEST(Guard, ReturnsWhatHappenedInside) {
    DWORD code = 99;
    int value = 0;
    EXPECT_TRUE(GuardedCall([&] { value = 5; }, &code));
    EXPECT_EQ(value, 5);
    EXPECT_EQ(code, 0u);
    EXPECT_FALSE(GuardedCall([&] { value = ReadNowhere(); }, &code));
    EXPECT_EQ(code, EXCEPTION_ACCESS_VIOLATION);
    EXPECT_FALSE(GuardedCall([&] { value = DivideByZero(); }, &code));
    EXPECT_EQ(code, EXCEPTION_INT_DIVIDE_BY_ZERO);
    EXPECT_FALSE(GuardedCall([&] { RaiseException(0xE0001234, 0, 0, nullptr); }, &code));
    EXPECT_EQ(code, 0xE0001234u);
    EXPECT_EQ(value, 5);
}

TEST(Guard, InnerGuardsRecoverFirst) {
    int steps = 0;
    DWORD code = 0;
    EXPECT_FALSE(GuardedCall(
        [&] {
            EXPECT_FALSE(GuardedCall([&] { RaiseException(1, 0, 0, nullptr); }));
            ++steps;
            EXPECT_FALSE(GuardedCall([&] { ReadNowhere(); }));
            ++steps;
            RaiseException(0xE0000002, 0, 0, nullptr);
            ++steps;
        },
        &code));
    EXPECT_EQ(steps, 2);
    EXPECT_EQ(code, 0xE0000002u);
}

TEST(Guard, LeavesCppExceptionsAndLocksOutsideAlone) {
    bool caught = false;
    EXPECT_TRUE(GuardedCall([&] {
        try {
            throw std::string("inside");
        } catch (const std::string&) {
            caught = true;
        }
    }));
    EXPECT_TRUE(caught);

    CRITICAL_SECTION section;
    InitializeCriticalSection(&section);
    EnterCriticalSection(&section);
    EXPECT_FALSE(GuardedCall([] { RaiseException(1, 0, 0, nullptr); }));
    LeaveCriticalSection(&section);
    auto other = [&] {
        const BOOL entered = TryEnterCriticalSection(&section);
        if (entered) LeaveCriticalSection(&section);
        return entered;
    };
    EXPECT_EQ(RunOnThread(&other), 1u);
    DeleteCriticalSection(&section);
}

TEST(Guard, ThreadsRecoverEachTheirOwnFaults) {
    constexpr int kRounds = 400;
    std::atomic<int> recovered{0};
    auto body = [&] {
        for (int i = 0; i < kRounds; ++i) {
            const DWORD wanted = 0xE0000000u + static_cast<DWORD>(i);
            DWORD code = 0;
            if (!GuardedCall([&] { RaiseException(wanted, 0, 0, nullptr); }, &code) && code == wanted)
                ++recovered;
            if (!GuardedCall([] { ReadNowhere(); }, &code) && code == EXCEPTION_ACCESS_VIOLATION) ++recovered;
        }
        return 0;
    };
    const TestHandle threads[] = {TestHandle(StartThread(&body)), TestHandle(StartThread(&body)),
                                  TestHandle(StartThread(&body)), TestHandle(StartThread(&body))};
    for (const TestHandle& thread : threads)
        EXPECT_EQ(EndOf(thread), 0u);
    EXPECT_EQ(recovered, 4 * 2 * kRounds);
}

namespace {

volatile int Sink = 0;

__attribute__((noinline)) int Overflow(int depth) {
    volatile char frame[4096];
    frame[0] = static_cast<char>(depth);
    if (depth == -1) return 0;
    const int below = Overflow(depth + 1);
    Sink = frame[0];
    return below + frame[0];
}

}  // namespace

TEST(Guard, StackOverflowIsRecoveredAndCanHappenAgain) {
    if (kSanitized) GTEST_SKIP() << "the sanitizers report the overflow themselves";
    auto body = [] {
        DWORD first = 0, second = 0;
        GuardedCall([] { Overflow(1); }, &first);
        GuardedCall([] { Overflow(1); }, &second);
        return first == EXCEPTION_STACK_OVERFLOW && second == EXCEPTION_STACK_OVERFLOW;
    };
    EXPECT_EQ(RunOnThread(&body), 1u);
}
