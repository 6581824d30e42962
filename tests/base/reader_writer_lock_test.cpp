// The reader/writer lock's promises, on which the order of the relay's work will rest.
#include "base/reader_writer_lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

namespace {

TEST(ReaderWriterLock, SharesWithReadersAndExcludesWriters) {
    ReaderWriterLock lock;
    std::promise<void> bothRead;
    std::atomic<int> readers{0};
    const auto read = [&] {
        const SharedHold hold(lock);
        if (++readers == 2) bothRead.set_value();
        // Neither goes on before the other is in.
        while (readers < 2)
            std::this_thread::yield();
    };
    std::thread first(read);
    std::thread second(read);
    bothRead.get_future().wait();
    first.join();
    second.join();

    constexpr int kRounds = 20000;
    int counter = 0;  // not atomic: the lock alone keeps it whole
    std::vector<std::thread> writers;
    for (int i = 0; i < 4; ++i) {
        writers.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                const ExclusiveHold hold(lock);
                ++counter;
            }
        });
    }
    for (std::thread& writer : writers)
        writer.join();
    EXPECT_EQ(counter, 4 * kRounds);
}

TEST(ReaderWriterLock, NobodyWritesBetweenAHoldAndItsDowngrade) {
    ReaderWriterLock lock;
    int value = 0;
    std::atomic<bool> stop{false};
    std::vector<std::thread> writers;
    for (int i = 0; i < 3; ++i) {
        writers.emplace_back([&] {
            while (!stop) {
                const ExclusiveHold hold(lock);
                ++value;
            }
        });
    }
    int changed = 0;
    for (int round = 0; round < 5000; ++round) {
        ExclusiveHold hold(lock);
        const int mine = ++value;
        hold.Downgrade();
        changed += value != mine ? 1 : 0;
    }
    stop = true;
    for (std::thread& writer : writers)
        writer.join();
    EXPECT_EQ(changed, 0);

    // A downgraded hold lets readers in, and its end lets go of everything.
    {
        ExclusiveHold hold(lock);
        hold.Downgrade();
        std::async(std::launch::async, [&] { const SharedHold reader(lock); }).get();
    }
    const ExclusiveHold again(lock);
}

}  // namespace
