// Critical sections, thread-local storage, private heaps and local blocks, as Windows documents them.
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
    DWORD entered = 9;
    {
        TestHandle thread(StartThread(&other));
        ASSERT_EQ(WaitForSingleObject(thread, kPatience), WAIT_OBJECT_0);
        GetExitCodeThread(thread, &entered);
        EXPECT_EQ(entered, 0u) << "left once, entered twice";
    }
    LeaveCriticalSection(&section);
    TestHandle thread(StartThread(&other));
    ASSERT_EQ(WaitForSingleObject(thread, kPatience), WAIT_OBJECT_0);
    GetExitCodeThread(thread, &entered);
    EXPECT_EQ(entered, 1u);
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
    const HANDLE threads[] = {StartThread(&body), StartThread(&body), StartThread(&body)};
    EXPECT_EQ(WaitForMultipleObjects(3, threads, TRUE, kPatience), WAIT_OBJECT_0);
    EXPECT_EQ(counter, 15000);
    for (HANDLE thread : threads)
        CloseHandle(thread);
    DeleteCriticalSection(&section);
}

TEST(Tls, HoldsAValuePerThreadAndForgetsItWithTheSlot) {
    const DWORD slot = TlsAlloc();
    ASSERT_NE(slot, TLS_OUT_OF_INDEXES);
    int value = 0;
    EXPECT_TRUE(TlsSetValue(slot, &value));
    auto body = [&] { return TlsGetValue(slot) == nullptr && TlsSetValue(slot, nullptr); };
    TestHandle thread(StartThread(&body));
    ASSERT_EQ(WaitForSingleObject(thread, kPatience), WAIT_OBJECT_0);
    DWORD wasEmpty = 0;
    GetExitCodeThread(thread, &wasEmpty);
    EXPECT_EQ(wasEmpty, 1u);
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

TEST(LocalBlocks, AreZeroedOnDemand) {
    auto* block = static_cast<unsigned char*>(LocalAlloc(LPTR, 100));
    ASSERT_NE(block, nullptr);
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(block[i], 0);
    EXPECT_EQ(LocalFree(block), nullptr);
    EXPECT_EQ(LocalFree(nullptr), nullptr);
}
