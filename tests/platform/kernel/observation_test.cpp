// What tests see of a process: the resources that it holds, and its debug output.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/testing/debug_output.h"
#include "platform/testing/resource_counts.h"
#include "tests/platform/kernel/test_handle.h"

TEST(Observation, ResourcesAreCountedAndGrowthIsNamed) {
    const platform::ResourceCounts before = platform::CountResources();
    HANDLE event = NewEvent(true);
    HANDLE heap = HeapCreate(0, 0, 0);
    void* block = HeapAlloc(heap, 0, 10);
    const DWORD slot = TlsAlloc();
    const std::string growth = platform::DescribeGrowth(before, platform::CountResources());
    std::string expected = "events: " + std::to_string(before.events) + " -> " +
                           std::to_string(before.events + 1) + "\nheaps: 0 -> 1\nheap blocks: 0 -> 1\n";
#ifndef _WIN32
    // The runtime library of every Windows module has some of its own.
    expected +=
        "TLS slots: " + std::to_string(before.tlsSlots) + " -> " + std::to_string(before.tlsSlots + 1) + "\n";
#endif
    EXPECT_EQ(growth, expected);
    EXPECT_NE(block, nullptr);
    TlsFree(slot);
    HeapDestroy(heap);
    CloseHandle(event);
    auto body = [] { return 0; };
    CloseHandle(StartThread(&body));
    EXPECT_EQ(platform::SettleTo(before), "");
}

TEST(Observation, DebugOutputIsCaptured) {
    OutputDebugStringA("before");
    const platform::DebugOutputCapture capture;
    SetLastError(321);
    OutputDebugStringA("one line\n");
    EXPECT_EQ(GetLastError(), 321u);
    EXPECT_EQ(capture.Texts(), (std::vector<std::string>{"one line\n"}));
    EXPECT_TRUE(capture.Contains("line"));
    EXPECT_FALSE(capture.Contains("before"));
}
