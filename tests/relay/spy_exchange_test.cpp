// Turns on a socket's channel to the analyzer.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/kernel/fault_points.h"
#include "platform/testing/clock.h"
#include "platform/testing/resource_counts.h"
#include "provider/contexts/socket_context.h"
#include "provider/process_state.h"
#include "relay/channel/spy_exchange.h"

namespace {

class SpyExchanges : public ::testing::Test {
  protected:
    void SetUp() override {
        before_ = platform::CountResources();
        InitializeLocks();
        platform::SetClockRate(0);
    }

    void TearDown() override {
        platform::ResetClock();
        DeleteLocks();
        EXPECT_EQ(platform::SettleTo(before_), "");
    }

    SocketContext context_;
    platform::ResourceCounts before_;
};

TEST_F(SpyExchanges, WaitersTakeTurnsInTheirOrder) {
    constexpr int kWaiters = 4;
    auto first = std::make_unique<SpyExchange>(&context_);
    ASSERT_TRUE(first->Entered());
    int inside = 0;  // by the exchange alone
    std::vector<int> order;
    std::vector<std::thread> threads;
    for (int i = 0; i < kWaiters; ++i) {
        threads.emplace_back([&, i] {
            const SpyExchange exchange(&context_);
            EXPECT_TRUE(exchange.Entered());
            EXPECT_EQ(++inside, 1);
            order.push_back(i);
            --inside;
        });
        ASSERT_TRUE(platform::WaitForTimedWaits(i + 1));
    }
    SocketContext other;
    other.Closing = TRUE;
    EXPECT_TRUE(SpyExchange(&other).Abandoned()) << "the close has come and gone";
    EXPECT_TRUE(SpyExchange(&other).Entered()) << "another socket's exchange is not in the way";
    EXPECT_TRUE(order.empty());
    first.reset();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3}));
    EXPECT_TRUE(SpyExchange(&context_).Entered());
}

TEST_F(SpyExchanges, TheWaitForATurnIsBounded) {
    auto owner = std::make_unique<SpyExchange>(&context_);
    auto waiter = std::async(std::launch::async, [&] { return SpyExchange(&context_).Entered(); });
    ASSERT_TRUE(platform::WaitForTimedWaits(1));
    platform::AdvanceClock(60000);
    EXPECT_FALSE(waiter.get());
    {
        const platform::ScopedFault noEvents({"CreateEventA"});
        auto unable = std::async(std::launch::async, [&] { return SpyExchange(&context_).Entered(); });
        EXPECT_FALSE(unable.get());
    }
    owner.reset();
    EXPECT_TRUE(SpyExchange(&context_).Entered());
}

TEST_F(SpyExchanges, AbandoningMarksTheExchangesOfOneContext) {
    SocketContext other;
    const SpyExchange mine(&context_);
    const SpyExchange theirs(&other);
    SpyExchange::Abandon(&context_);
    EXPECT_TRUE(mine.Abandoned());
    EXPECT_FALSE(theirs.Abandoned());
}

}  // namespace
