// Fault points: which calls count, and the ways in which they fail.
#include <windows.h>
#include <algorithm>

#include <gtest/gtest.h>

#include "platform/guard/guarded_call.h"
#include "platform/kernel/fault_points.h"
#include "tests/platform/kernel/test_handle.h"

using platform::Fault;
using platform::FaultKind;
using platform::PlatformCall;
using platform::ScopedFault;

namespace {

/// A platform function that calls others and can transfer fewer bytes than asked.
DWORD Transfer(DWORD bytes) {
    PlatformCall call("Transfer", ERROR_GEN_FAILURE);
    if (call.Fails()) return 0;
    CloseHandle(NewEvent(true));
    return call.LimitCount(bytes);
}

void CALLBACK CloseInApc(ULONG_PTR handle) {
    CloseHandle(reinterpret_cast<HANDLE>(handle));
}

}  // namespace

TEST(FaultPoints, FailTheNthCallOfAFunctionWithItsOwnOrAGivenError) {
    {
        const ScopedFault fault({"CreateEventA", 2});
        TestHandle first(NewEvent(true));
        EXPECT_NE(static_cast<HANDLE>(first), nullptr);
        EXPECT_EQ(NewEvent(true), nullptr);
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
        TestHandle third(NewEvent(true));
        EXPECT_NE(static_cast<HANDLE>(third), nullptr);
        EXPECT_EQ(platform::FaultsStruck(), 1);
    }
    const ScopedFault fault({"", 1, FaultKind::kError, ERROR_ACCESS_DENIED});
    EXPECT_EQ(WaitForSingleObject(GetCurrentThread(), 0), WAIT_FAILED);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
}

TEST(FaultPoints, CountOutermostCallsOnlyAndThoseBeyondABoundary) {
    TestHandle self(OpenThread(THREAD_ALL_ACCESS, FALSE, GetCurrentThreadId()));
    platform::CountCalls();
    Transfer(10);
    HANDLE event = NewEvent(true);
    QueueUserAPC(CloseInApc, self, reinterpret_cast<ULONG_PTR>(event));
    SleepEx(0, TRUE);
    platform::DisarmFaults();
    EXPECT_EQ(platform::CountedCalls(),
              (std::vector<std::string>{"Transfer", "CreateEventA", "QueueUserAPC", "CloseHandle"}));
}

TEST(FaultPoints, ShortCountsAndExceptions) {
    {
        const ScopedFault fault({"Transfer", 1, FaultKind::kShortCount, 3});
        EXPECT_EQ(Transfer(10), 3u);
        EXPECT_EQ(Transfer(10), 10u);
    }
    const ScopedFault fault({"Transfer", 1, FaultKind::kException, EXCEPTION_ACCESS_VIOLATION});
    DWORD code = 0;
    EXPECT_FALSE(GuardedCall([] { Transfer(10); }, &code));
    EXPECT_EQ(code, EXCEPTION_ACCESS_VIOLATION);
    // The abandoned call no longer hides the calls after it.
    Transfer(10);
    const std::vector<std::string> calls = platform::CountedCalls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "Transfer"), 2);
}
