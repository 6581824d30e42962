// The relay's completion port, and what becomes of the listener without it.
#include <gtest/gtest.h>

#include "base/process_locks.h"
#include "platform/kernel/fault_points.h"
#include "platform/testing/debug_output.h"
#include "platform/testing/resource_counts.h"
#include "provider/guarded_sockets.h"
#include "relay/split/relay_completion_port.h"

namespace {

class RelayCompletionPortTest : public ::testing::Test {
  protected:
    void SetUp() override {
        before_ = platform::CountResources();
        InitializeLocks();
        WSADATA data{};
        ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
    }
    void TearDown() override {
        EXPECT_EQ(WSACleanup(), 0);
        DeleteLocks();
        EXPECT_EQ(platform::SettleTo(before_), "");
    }

    platform::ResourceCounts before_;
};

TEST_F(RelayCompletionPortTest, OneThatCantBeMadeClosesTheListener) {
    RelayListenSocket = SafeWSASocket(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED);
    const SOCKET s = SafeWSASocket(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED);
    {
        const platform::DebugOutputCapture output;
        const platform::ScopedFault fault({"CreateIoCompletionPort"});
        EXPECT_FALSE(AssociateWithRelayCompletionPort(s, 0));
        EXPECT_EQ(RelayListenSocket, INVALID_SOCKET);
        EXPECT_TRUE(output.Contains("ERROR:Failed to create the completion port:"));
    }
    EXPECT_TRUE(AssociateWithRelayCompletionPort(s, 0));
    EXPECT_FALSE(AssociateWithRelayCompletionPort(s, 0)) << "a socket belongs to one port for life";
    SafeCloseHandle(RelayCompletionPort.Exchange(nullptr));
    SafeCloseSocket(s);
}

}  // namespace
