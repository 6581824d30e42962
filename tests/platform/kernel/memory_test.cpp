// Critical sections, thread-local storage and private heaps, as Windows documents them.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "tests/platform/kernel/test_handle.h"

TEST(CriticalSection, IsReentrantForItsOwnerAndExcludesOthers) {
    CRITICAL_SECTION section;
    InitializeCriticalSection(&section);
    EnterCriticalSection(&section);
    EXPECT_TRUE(TryEnterCriticalSection(&section));
    LeaveCriticalSection(&section);
    auto other = [&] {
        if (!TryEnterCriticalSection(&section)) return 0;
        LeaveCriticalSection(&section);
        return 1;
    };
    EXPECT_EQ(RunOnThread(&other), 0u) << "left once, entered twice";
    LeaveCriticalSection(&section);
    EXPECT_EQ(RunOnThread(&other), 1u);
    DeleteCriticalSection(&section);
}

TEST(CriticalSection, GuardsAPlainCounter) {
    CRITICAL_SECTION section;
    ASSERT_TRUE(InitializeCriticalSectionAndSpinCount(&section, 1000));
    int counter = 0;
    auto body = [&] {
        for (int i = 0; i < 5000; ++i) {
            EnterCriticalSection(&section);
            ++counter;
            LeaveCriticalSection(&section);
        }
        return 0;
    };
    const TestHandle threads[] = {TestHandle(StartThread(&body)), TestHandle(StartThread(&body)),
                                  TestHandle(StartThread(&body))};
    for (const TestHandle& thread : threads)
        EXPECT_EQ(EndOf(thread), 0u);
    EXPECT_EQ(counter, 15000);
    DeleteCriticalSection(&section);
}

TEST(Tls, HoldsAValuePerThreadAndForgetsItWithTheSlot) {
    const DWORD slot = TlsAlloc();
    ASSERT_NE(slot, TLS_OUT_OF_INDEXES);
    int value = 0;
    EXPECT_TRUE(TlsSetValue(slot, &value));
    auto body = [&] { return TlsGetValue(slot) == nullptr && TlsSetValue(slot, nullptr); };
    EXPECT_EQ(RunOnThread(&body), 1u) << "it was empty there";
    SetLastError(5);
    EXPECT_EQ(TlsGetValue(slot), &value);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SUCCESS)) << "success clears the last error";

    EXPECT_TRUE(TlsFree(slot));
    EXPECT_FALSE(TlsFree(slot));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    const DWORD again = TlsAlloc();
    EXPECT_EQ(TlsGetValue(again), nullptr);
    TlsFree(again);
}

TEST(Heap, ZeroesOnDemandAndFreesEverythingWhenDestroyed) {
    HANDLE heap = HeapCreate(0, 128000, 0);
    ASSERT_NE(heap, nullptr);
    std::set<void*> blocks;
    for (std::size_t size : {0u, 1u, 7u, 300u, 70000u}) {
        auto* block = static_cast<unsigned char*>(HeapAlloc(heap, HEAP_ZERO_MEMORY, size));
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<ULONG_PTR>(block) % 8, 0u);
        for (std::size_t i = 0; i < size; ++i)
            ASSERT_EQ(block[i], 0);
        std::memset(block, 0xAA, size);
        EXPECT_TRUE(blocks.insert(block).second);
    }
    EXPECT_TRUE(HeapFree(heap, 0, *blocks.begin()));
    EXPECT_TRUE(HeapDestroy(heap));
}
