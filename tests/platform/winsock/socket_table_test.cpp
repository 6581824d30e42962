// The table of handles: its bounds, and look-ups against a handle that comes and goes.
#include "platform/winsock/socket_table.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

using winsock_host::Provider;
using winsock_host::SocketTable;

Provider* FakeProvider(std::uintptr_t number) {
    return reinterpret_cast<Provider*>(number * 16);
}

TEST(SocketTableTest, KeepsHandlesApartUpToTheLargest) {
    static SocketTable table;  // its chunks are never freed
    constexpr SOCKET kLargest = (SOCKET{1} << 24) - 4;
    const SOCKET handles[] = {4, 8, 4096, 4100, kLargest};
    std::uintptr_t number = 0;
    for (const SOCKET s : handles) {
        ++number;
        ASSERT_TRUE(table.Add(s, {FakeProvider(number), number % 2 == 1}, number));
    }
    number = 0;
    for (const SOCKET s : handles) {
        ++number;
        EXPECT_EQ(table.Find(s).provider, FakeProvider(number));
        DWORD_PTR context = 0;
        EXPECT_EQ(table.Context(s, &context), number % 2 == 1) << "only Winsock's own handles have one";
        if (number % 2 == 1) {
            EXPECT_EQ(context, number);
        }
    }
    for (const SOCKET s : {SOCKET{0}, SOCKET{5}, SOCKET{12}, kLargest + 4, INVALID_SOCKET}) {
        EXPECT_EQ(table.Find(s).provider, nullptr) << s;
    }
    EXPECT_FALSE(table.Add(kLargest + 4, {FakeProvider(1), true}, 0));
    EXPECT_FALSE(table.Add(6, {FakeProvider(1), true}, 0));
    EXPECT_EQ(table.Remove(4, false).provider, nullptr) << "made by Winsock";
    EXPECT_EQ(table.Remove(4, true).provider, FakeProvider(1));
    EXPECT_EQ(table.Remove(4, true).provider, nullptr) << "gone already";
    int left = 0;
    table.Clear([&](SOCKET, SocketTable::Owner) { ++left; });
    EXPECT_EQ(left, 4);
}

// Several threads close the same handles at once, as applications do; each handle goes to one of them, and
// look-ups meanwhile see the handle or nothing.
TEST(SocketTableTest, OneOfSeveralClosersTakesAHandle) {
    static SocketTable table;
    constexpr int kRounds = 5;
    constexpr SOCKET kEnd = 800000;  // 199,999 handle values
    constexpr int kClosers = 3;
    std::atomic<int> round{0};
    std::atomic<int> taken{0};
    std::atomic<int> done{0};
    std::vector<std::thread> threads;
    threads.reserve(kClosers);
    for (int t = 0; t < kClosers; ++t) {
        threads.emplace_back([&] {
            for (int r = 1; r <= kRounds; ++r) {
                while (round < r)
                    std::this_thread::yield();
                for (SOCKET s = 4; s < kEnd; s += 4) {
                    DWORD_PTR context = 0;
                    if (table.Context(s, &context) && context != s) ADD_FAILURE() << context;
                    if (table.Remove(s, true).provider != nullptr) ++taken;
                }
                ++done;
            }
        });
    }
    for (int r = 1; r <= kRounds; ++r) {
        for (SOCKET s = 4; s < kEnd; s += 4)
            EXPECT_TRUE(table.Add(s, {FakeProvider(1), true}, s));
        round = r;
        while (done < r * kClosers)
            std::this_thread::yield();
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(taken, kRounds * 199999);
}

}  // namespace
