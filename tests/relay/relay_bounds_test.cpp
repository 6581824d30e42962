// What the relay counts: connections by their indexes, and what waits in memory for one of them.
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <utility>

#include "messages/buffer_arena.h"
#include "messages/message_pool.h"
#include "platform/testing/resource_counts.h"
#include "provider/guarded_sockets.h"
#include "provider/process_state.h"
#include "relay/split/closing_sockets.h"
#include "relay/split/relay_close.h"
#include "relay/split/relay_completion_port.h"
#include "relay/split/relay_flow.h"
#include "relay/split/relay_life.h"
#include "relay/split/relay_requests.h"
#include "tests/support/loopback_stream.h"

namespace {

class RelayBounds : public ::testing::Test {
  protected:
    void SetUp() override {
        before_ = platform::CountResources();
        InitializeLocks();
        StartRelay();
        WSADATA data{};
        ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
    }
    void TearDown() override {
        EXPECT_TRUE(StopRelay());
        DestroyRelay();
        EXPECT_EQ(WSACleanup(), 0);
        DestroyMessagePool();
        DestroyBufferArena();
        DeleteLocks();
        EXPECT_EQ(platform::SettleTo(before_), "");
    }

    static DWORD Insert(SOCKET spySocket) {
        auto connection = std::make_unique<RelayConnection>();
        connection->SpySocket = spySocket;
        return InsertRelayConnection(std::move(connection));
    }
    /// Without closing its sockets, which are none.
    static void Remove(DWORD relayIndex) {
        FindRelayConnection(relayIndex)->SpySocket = INVALID_SOCKET;
        RemoveRelayConnection(relayIndex);
    }

    /// A socket on the relay's port, connected to somebody who says nothing.
    SOCKET ConnectedSocket() {
        EnsureRelayCompletionPort();
        const SOCKET s = WSASocketA(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED);
        sockaddr_in name{};
        name.sin_family = AF_INET;
        name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        name.sin_port = htons(peer_.Port());
        EXPECT_EQ(connect(s, reinterpret_cast<const sockaddr*>(&name), sizeof(name)), 0);
        EXPECT_EQ(CreateIoCompletionPort(reinterpret_cast<HANDLE>(s), RelayCompletionPort, 0, 0),
                  RelayCompletionPort);
        return s;
    }

    /// What the relay worker would do after the sockets have been closed.
    static void TakePackets() {
        while (PostedRequests > 0) {
            DWORD bytes = 0;
            ULONG_PTR key = 0;
            OVERLAPPED* overlapped = nullptr;
            GetQueuedCompletionStatus(RelayCompletionPort, &bytes, &key, &overlapped, INFINITE);
            if (overlapped == nullptr) continue;
            const PooledPerIOData record = TakeFromPort(overlapped);
        }
    }

  private:
    platform::ResourceCounts before_;
    LoopbackListener peer_;
};

/// The low half of the socket is 0: the index is the counter alone, and comes to 0 as well.
TEST_F(RelayBounds, IndexesAreNeverZeroNorGivenTwice) {
    constexpr SOCKET kSpySocket = 0x10000;
    const DWORD kept = Insert(kSpySocket);
    std::set<DWORD> given;
    for (int i = 0; i < 65534; ++i) {
        const DWORD index = Insert(kSpySocket);
        given.insert(index);
        Remove(index);
    }
    EXPECT_EQ(given.size(), 65534u);
    EXPECT_EQ(given.count(0) + given.count(kept), 0u);
    Remove(kept);
    EXPECT_EQ(UnpairedCount(), 0u);
}

class RelayFlow : public RelayBounds {
  protected:
    void SetUp() override {
        RelayBounds::SetUp();
        index_ = Insert(ConnectedSocket());
        RelayHold connection = FindRelayConnection(index_, DataAccess::kExclusive);
        connection->SpyIsOnPort = true;
        for (const RelaySide* side : {&kClientSide, &kServerSide}) {
            (*connection).*side->Socket = ConnectedSocket();
            (*connection).*side->Connected = TRUE;
        }
    }
    void TearDown() override {
        {
            RelayHold connection = FindRelayConnection(index_);
            CloseEntireRelayConnection(connection, true);
        }
        CloseRemainingSockets();
        TakePackets();
        RemoveRelayConnection(index_);
        RelayBounds::TearDown();
    }

    DWORD index_ = 0;
};

TEST_F(RelayFlow, ASideReadsOnWhileFewSendsAreUnderWay) {
    const struct {
        DWORD toOtherSide;
        DWORD toOwnSide;
        DWORD toAnalyzer;
        bool reads;
    } rows[] = {
        {0, 0, 0, true}, {2, 99, 4, true}, {3, 0, 0, false}, {0, 0, 5, false}, {3, 99, 5, false},
    };
    RelayHold connection = FindRelayConnection(index_);
    for (const RelaySide* side : {&kClientSide, &kServerSide}) {
        const RelaySide& other = OtherSide(*side);
        for (const auto& row : rows) {
            SCOPED_TRACE(::testing::Message() << "receive " << side->Receive << ": " << row.toOtherSide
                                              << " sends, " << row.toAnalyzer << " to the analyzer");
            const LONG before = PostedRequests;
            (*connection).*other.PendingSends = row.toOtherSide;
            (*connection).*side->PendingSends = row.toOwnSide;
            connection->PendingSpySends = row.toAnalyzer;
            WantReceive(connection, *side);
            EXPECT_EQ(PostedRequests - before, row.reads ? 1 : 0);
            // One that waits goes on with the first packets that make room.
            while ((*connection).*other.PendingSends > 2)
                RemovePendingSend(other.Send, 0, connection);
            while (connection->PendingSpySends > 4)
                RemovePendingSend(RelayOpSpySend, 0, connection);
            EXPECT_EQ(PostedRequests - before, 1);
            (*connection).*side->PendingSends = 0;
            (*connection).*side->ReceivePosted = false;
        }
    }
}

TEST_F(RelayFlow, AnswersAreReadWhileLessThanAMebibyteOfThemWaits) {
    constexpr DWORD kMebibyte = 1 << 20;
    const struct {
        DWORD toClient;
        DWORD toServer;
        bool reads;
    } rows[] = {
        {0, 0, true},
        {kMebibyte / 2, kMebibyte / 2 - 1, true},
        {kMebibyte / 2, kMebibyte / 2, false},
        {0, kMebibyte, false},
    };
    RelayHold connection = FindRelayConnection(index_);
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::Message() << row.toClient << ", " << row.toServer);
        const LONG before = PostedRequests;
        connection->PendingClientBytes = row.toClient;
        connection->PendingServerBytes = row.toServer;
        PooledPerIOData record = AcquirePerIOData(RelayOpSpyRecv, connection->SpySocket, index_);
        ASSERT_TRUE(AllocateBuffer(record.get(), 16));
        PostSpyReceive(std::move(record), connection);
        EXPECT_EQ(PostedRequests - before, row.reads ? 1 : 0);
        RemovePendingSend(RelayOpServerSend, 1, connection);
        EXPECT_EQ(PostedRequests - before, 1);
    }
}

}  // namespace
