// Once warm, an overlapped request allocates nothing: neither of the private heap nor by operator new, which
// this program replaces to count what is not the stand-in's own.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <type_traits>

#include "platform/guard/call_depth.h"
#include "tests/provider/overlapped_fixture.h"
#include "tests/support/replaced_new.h"

namespace {

std::atomic<bool> Counting{false};
std::atomic<int> Allocations{0};

}  // namespace

void* AllocateForNew(std::size_t size) noexcept {
    if (Counting.load(std::memory_order_relaxed) && platform::CurrentCallDepth().calls == 0)
        Allocations.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size != 0 ? size : 1);
}

void ReleaseFromDelete(void* memory) noexcept {
    std::free(memory);
}

namespace {

class OverlappedAllocation : public OverlappedTest {
  protected:
    void Exchange(SOCKET s) {
        EventRequest receive;
        EventRequest send;
        ASSERT_EQ(Receive(s, receive), WSA_IO_PENDING);
        ASSERT_EQ(Send(s, send), WSA_IO_PENDING);
        ASSERT_EQ(send.Wait(s), 0u);
        ASSERT_EQ(receive.Wait(s), 0u);
    }

    /// A worker may be about to give its record back when the next request is made. So many at once leave
    /// enough for every worker.
    void MakeRecords(SOCKET s) {
        Request receives[MAXIMUM_WAIT_OBJECTS + 2];
        for (Request& receive : receives) {
            receive.buffer.len = 1;
            ASSERT_EQ(Receive(s, receive), WSA_IO_PENDING);
        }
        const char bytes[std::extent_v<decltype(receives)>] = {};
        ASSERT_EQ(send(s, bytes, sizeof(bytes), 0), static_cast<int>(sizeof(bytes)));
        for (const Request& receive : receives) {
            while (__atomic_load_n(&receive.overlapped.Internal, __ATOMIC_ACQUIRE) == 0x103)
                std::this_thread::yield();
        }
    }
};

INSTANTIATE_TEST_SUITE_P(Modes, OverlappedAllocation, ::testing::Values(Mode::kCompletionPort),
                         [](const auto& mode) { return NameOf(mode.param); });

TEST_P(OverlappedAllocation, ThereIsNoneOnceWarm) {
    EchoPeer peer;
    const SOCKET s = Connected(peer.Port());
    MakeRecords(s);
    Exchange(s);
    platform::CountCalls();
    Counting = true;
    for (int i = 0; i < 500; ++i)
        Exchange(s);
    Counting = false;
    const std::vector<std::string> calls = platform::CountedCalls();
    platform::DisarmFaults();
    closesocket(s);
    EXPECT_GE(std::count(calls.begin(), calls.end(), "lower WSPRecv"), 500);
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "HeapAlloc"), 0);
    EXPECT_EQ(Allocations, 0);
}

}  // namespace
