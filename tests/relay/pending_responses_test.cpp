// Answers that one thread reads and another waits for.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "messages/buffer_arena.h"
#include "platform/kernel/fault_points.h"
#include "platform/testing/clock.h"
#include "platform/testing/resource_counts.h"
#include "provider/contexts/socket_context.h"
#include "provider/process_state.h"
#include "relay/channel/analyzer_channel.h"
#include "relay/channel/pending_responses.h"

namespace {

constexpr DWORD kId = 0x00420007;
constexpr SOCKET kSpySocket = 4711;

class PendingResponses : public ::testing::Test {
  protected:
    void SetUp() override {
        before_ = platform::CountResources();
        InitializeLocks();
        context_.RelayWanted = TRUE;
    }

    void TearDown() override {
        ClearPendingResponses();
        DestroyMessagePool();
        DestroyBufferArena();
        DeleteLocks();
        EXPECT_EQ(platform::SettleTo(before_), "");
    }

    static PooledResponse ResponseTo(DWORD requestId, DWORD action = ActionAllow) {
        PooledResponse response = TakeResponse();
        response->RequestId = requestId;
        response->Action = action;
        return response;
    }

    SocketContext context_;
    platform::ResourceCounts before_;
};

TEST_F(PendingResponses, NobodyRegistersWithoutASpySocketOrAnEvent) {
    EXPECT_EQ(CreateResponseWait(kId, INVALID_SOCKET), INVALID_HANDLE_VALUE);
    const platform::ScopedFault noEvents({"CreateEventA"});
    EXPECT_EQ(CreateResponseWait(kId, kSpySocket), INVALID_HANDLE_VALUE);
}

TEST_F(PendingResponses, AnAnswerThatComesFirstIsTakenWithoutWaiting) {
    const platform::ScopedClockRate stopped(0);
    const HANDLE event = CreateResponseWait(kId, kSpySocket);
    PooledResponse response = ResponseTo(kId, ActionBlock);
    PooledResponse earlier = ResponseTo(kId, ActionAllow);
    EXPECT_TRUE(DeliverResponse(earlier));
    EXPECT_TRUE(DeliverResponse(response));
    EXPECT_EQ(response, nullptr);
    const PooledResponse taken = WaitForResponse({kId}, &context_, event);
    ASSERT_NE(taken, nullptr);
    EXPECT_EQ(taken->Action, ActionBlock);

    PooledResponse late = ResponseTo(kId);
    EXPECT_FALSE(DeliverResponse(late)) << "the waiter is gone";
    EXPECT_NE(late, nullptr);
}

TEST_F(PendingResponses, EachWaiterGetsItsOwnAnswer) {
    const HANDLE first = CreateResponseWait(kId, kSpySocket);
    const HANDLE second = CreateResponseWait(kId + 1, kSpySocket);
    std::thread worker([] {
        PooledResponse two = ResponseTo(kId + 1, ActionBlock);
        DeliverResponse(two);
        PooledResponse one = ResponseTo(kId, ActionRedirect);
        DeliverResponse(one);
    });
    const PooledResponse one = WaitForResponse({kId}, &context_, first);
    const PooledResponse two = WaitForResponse({kId + 1}, &context_, second);
    worker.join();
    ASSERT_TRUE(one != nullptr && two != nullptr);
    EXPECT_EQ(one->Action, ActionRedirect);
    EXPECT_EQ(two->Action, ActionBlock);
}

TEST_F(PendingResponses, WakingEndsTheWaitsOfOneSpySocketOnly) {
    const platform::ScopedClockRate stopped(0);
    SocketContext other;
    other.RelayWanted = TRUE;
    const HANDLE event = CreateResponseWait(kId, kSpySocket);
    const HANDLE otherEvent = CreateResponseWait(kId + 1, kSpySocket + 1);
    WakeResponseWaiters(kSpySocket - 1);
    WakeResponseWaiters(kSpySocket);
    EXPECT_EQ(WaitForResponse({kId}, &context_, event), nullptr);
    PooledResponse response = ResponseTo(kId + 1);
    DeliverResponse(response);
    EXPECT_NE(WaitForResponse({kId + 1}, &other, otherEvent), nullptr);
}

TEST_F(PendingResponses, TheWaitEndsAfterAMinute) {
    const platform::ScopedClockRate stopped(0);
    const HANDLE event = CreateResponseWait(kId, kSpySocket);
    auto waiter = std::async(std::launch::async, [&] { return WaitForResponse({kId}, &context_, event); });
    ASSERT_TRUE(platform::WaitForTimedWaits(1));
    platform::AdvanceClock(59999);
    EXPECT_EQ(waiter.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    platform::AdvanceClock(1);
    EXPECT_EQ(waiter.get(), nullptr);
}

TEST_F(PendingResponses, AWaiterWhoseIdCameRoundLeavesTheNewOneAlone) {
    const HANDLE old = CreateResponseWait(kId, kSpySocket);
    const HANDLE young = CreateResponseWait(kId, kSpySocket);
    {
        const platform::ScopedClockRate fast(100000);
        EXPECT_EQ(WaitForResponse({kId}, &context_, old), nullptr);
    }
    PooledResponse response = ResponseTo(kId);
    EXPECT_TRUE(DeliverResponse(response));
    EXPECT_NE(WaitForResponse({kId}, &context_, young), nullptr);
}

TEST_F(PendingResponses, ClearingReleasesWaitersAndUnfetchedAnswers) {
    CreateResponseWait(kId, kSpySocket);
    CreateResponseWait(kId + 1, kSpySocket);
    PooledResponse response = ResponseTo(kId + 1);
    DeliverResponse(response);
    // TearDown clears and counts.
}

TEST_F(PendingResponses, AWaiterOvertakenByAClearingLeavesTheHandleAlone) {
    const platform::ScopedClockRate stopped(0);
    const HANDLE event = CreateResponseWait(kId, kSpySocket);
    ClearPendingResponses();
    // It has the value of the event that the clearing closed; a wait for it would never end.
    const HANDLE other = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    ASSERT_EQ(other, event);
    EXPECT_EQ(WaitForResponse({kId}, &context_, event), nullptr);
    EXPECT_TRUE(SetEvent(other));
    CloseHandle(other);
}

TEST_F(PendingResponses, AClearingFreesAThreadThatWaits) {
    const platform::ScopedClockRate stopped(0);
    const HANDLE event = CreateResponseWait(kId, kSpySocket);
    auto waiter = std::async(std::launch::async, [&] { return WaitForResponse({kId}, &context_, event); });
    ASSERT_TRUE(platform::WaitForTimedWaits(1));
    ClearPendingResponses();
    EXPECT_EQ(waiter.get(), nullptr);
}

TEST_F(PendingResponses, AnAnswerEndsTheCountThatWasReportedAndExemptsAProcess) {
    const auto answerWith = [&](DWORD flags, DWORD exempt) {
        const HANDLE event = CreateResponseWait(kId, kSpySocket);
        PooledResponse response = ResponseTo(kId);
        response->Flags = flags;
        response->ExemptProcessId = exempt;
        DeliverResponse(response);
        WaitForResponse({kId, 10, 20}, &context_, event);
    };
    context_.BytesSent = 13;
    context_.BytesRecv = 24;
    answerWith(kFlagCountTraffic, 0);
    EXPECT_EQ(context_.BytesSent, 13u) << "not counted so far, so not reported";
    answerWith(kFlagKeepFlags, 99);
    EXPECT_EQ(context_.BytesSent, 3u) << "what came after the report is for the next";
    EXPECT_EQ(context_.BytesRecv, 4u);
    EXPECT_EQ(ExemptProcessId, 99u);
    answerWith(0, 0);
    EXPECT_EQ(ExemptProcessId, 99u) << "an answer that names no process exempts no other";
    ExemptProcessId = 0;
}

}  // namespace
