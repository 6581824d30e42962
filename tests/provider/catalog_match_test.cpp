// Which of the layer's entries a start-up gets, for every way in which Winsock may name it.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/kernel/fault_points.h"
#include "platform/testing/catalog.h"
#include "platform/testing/resource_counts.h"
#include "provider/catalog/catalog.h"
#include "provider/catalog/protocol_list.h"
#include "provider/contexts/catalog_teardown.h"
#include "provider/contexts/handle_locks.h"
#include "provider/process_state.h"

namespace {

constexpr DWORD kLayerBase = 500;
constexpr DWORD kTcpChain = 501;
constexpr DWORD kUdpChain = 502;

WSAPROTOCOL_INFOW MakeInfo(DWORD id, std::vector<DWORD> chain, int type, int protocol, DWORD flags = 0) {
    WSAPROTOCOL_INFOW info{};
    info.dwCatalogEntryId = id;
    info.ProtocolChain.ChainLen = static_cast<int>(chain.size());
    for (std::size_t i = 0; i < chain.size(); ++i)
        info.ProtocolChain.ChainEntries[i] = chain[i];
    info.iAddressFamily = AF_INET;
    info.iSocketType = type;
    info.iProtocol = protocol;
    info.dwServiceFlags1 = flags;
    return info;
}

/// Two entries of the layer: TCP and UDP over base providers.
class CatalogMatch : public ::testing::Test {
  protected:
    void SetUp() override {
        InitializeLocks();
        InitializeHandleLocks();
        ASSERT_TRUE(CreatePrivateHeap());
        entries_[0].LayerProvider =
            MakeInfo(kTcpChain, {kLayerBase, 1}, SOCK_STREAM, IPPROTO_TCP, XP1_IFS_HANDLES);
        entries_[1].LayerProvider = MakeInfo(kUdpChain, {kLayerBase, 2}, SOCK_DGRAM, IPPROTO_UDP);
        for (LspEntry& entry : entries_)
            entry.LayerBaseId = kLayerBase;
    }

    void TearDown() override {
        INT error = 0;
        FreeLspCatalog(false, &error);
        DeleteHandleLocks();
        DeleteLocks();
        winsock_host::ResetCatalogForTest();
        winsock_host::DropCatalog();
    }

    /// What the layer finds when it reads the Winsock catalog during a match.
    static void SetWinsockCatalog(const std::vector<WSAPROTOCOL_INFOW>& infos) {
        winsock_host::Catalog catalog;
        for (const WSAPROTOCOL_INFOW& info : infos)
            catalog.entries.push_back({info, {}});
        winsock_host::SetCatalogForTest(catalog);
        winsock_host::DropCatalog();
    }

    /// The index of the entry that serves `info`, or -1.
    int Match(const WSAPROTOCOL_INFOW& info) {
        const Locker lock(CatalogLock);
        LspEntry* const entry = FindMatchingLspEntryForProtocolInfo(&info, entries_, 2);
        return entry != nullptr ? static_cast<int>(entry - entries_) : -1;
    }

    LspEntry entries_[2] = {};  // zero-filled, as the records of a catalog are
};

TEST_F(CatalogMatch, EachPassComesBeforeTheNext) {
    SetWinsockCatalog({});
    struct {
        const char* what;
        WSAPROTOCOL_INFOW info;
        int expected;
    } const cases[] = {
        {"own id, although everything else says the other",
         MakeInfo(kUdpChain, {kLayerBase, 1}, SOCK_STREAM, IPPROTO_TCP), 1},
        {"another layer above our UDP entry, although it looks like TCP",
         MakeInfo(900, {800, kUdpChain, 2}, SOCK_STREAM, IPPROTO_TCP), 1},
        {"our base id in the chain ends that search, and the protocol decides",
         MakeInfo(900, {800, kLayerBase, kUdpChain}, SOCK_STREAM, IPPROTO_TCP), 0},
        {"the protocol, whatever is said about file handles", MakeInfo(900, {}, SOCK_STREAM, IPPROTO_TCP), 0},
        {"any other service flag counts", MakeInfo(900, {}, SOCK_STREAM, IPPROTO_TCP, XP1_QOS_SUPPORTED), -1},
        {"nothing fits", MakeInfo(900, {}, SOCK_RAW, IPPROTO_ICMP), -1},
        {"a chain longer than a chain can be", MakeInfo(900, {800, 1, 2, 3, 4, 5, 6}, SOCK_RAW, 0), -1},
    };
    for (const auto& row : cases)
        EXPECT_EQ(Match(row.info), row.expected) << row.what;

    WSAPROTOCOL_INFOW corrupt = MakeInfo(900, {800}, SOCK_RAW, 0);
    corrupt.ProtocolChain.ChainLen = 1000;
    EXPECT_EQ(Match(corrupt), -1);
    const Locker lock(CatalogLock);
    EXPECT_EQ(FindMatchingLspEntryForProtocolInfo(nullptr, entries_, 2), nullptr);
}

TEST_F(CatalogMatch, LastPassFollowsChainsThatWereInstalledLater) {
    const WSAPROTOCOL_INFOW top = MakeInfo(700, {}, SOCK_RAW, 0);
    // Asked for: something whose chain begins at 700, a layer that came after our catalog was read.
    const WSAPROTOCOL_INFOW asked = MakeInfo(900, {700}, SOCK_RAW, 9);

    SetWinsockCatalog({top, MakeInfo(701, {700, kLayerBase, 2}, SOCK_DGRAM, IPPROTO_UDP)});
    EXPECT_EQ(Match(asked), 1) << "a chain through our base entry, told apart by its protocol";

    SetWinsockCatalog({top, MakeInfo(701, {700, kUdpChain, 2}, SOCK_RAW, 0)});
    EXPECT_EQ(Match(asked), 1) << "a chain through one of our entries";
    entries_[1].LowerStartupCount = 1;
    EXPECT_EQ(Match(asked), -1) << "but not one that is in use already";

    entries_[1].LowerStartupCount = 0;
    SetWinsockCatalog({top, MakeInfo(701, {702, kUdpChain, 2}, SOCK_RAW, 0)});
    EXPECT_EQ(Match(asked), -1) << "a chain under another top";

    SetWinsockCatalog({MakeInfo(701, {700, kUdpChain, 2}, SOCK_RAW, 0)});
    EXPECT_EQ(Match(asked), -1) << "a top that has gone";
    SetWinsockCatalog({MakeInfo(701, {0, kUdpChain, 2}, SOCK_RAW, 0)});
    EXPECT_EQ(Match(asked), 1) << "which leaves the chains that name none";
    SetWinsockCatalog({top, MakeInfo(701, {700, kLayerBase, 2}, SOCK_SEQPACKET, 0),
                       MakeInfo(702, {700, kTcpChain, 1}, SOCK_RAW, 0)});
    EXPECT_EQ(Match(asked), 0) << "another chain, after one that leads to nothing of ours";
}

// A catalog that grows while it is read is read again, but not for ever.
TEST_F(CatalogMatch, AGrowingCatalogIsReadAgain) {
    SetWinsockCatalog({MakeInfo(700, {}, SOCK_RAW, 0)});
    constexpr int kReads = 5;  // one that asks for the size, then four
    const struct {
        int firstFailing;
        bool repeat;
        DWORD error;
        int count;
        int reads;
    } rows[] = {
        {2, false, WSAENOBUFS, 1, 3},
        {2, true, WSAENOBUFS, 0, kReads},
        {2, true, WSAEFAULT, 0, 2},
        {1, true, WSAEFAULT, 0, 1},
    };
    const int blocks = platform::CountResources().heapBlocks;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.reads);
        const platform::ScopedFault fault(
            {"WSCEnumProtocols", row.firstFailing, platform::FaultKind::kError, row.error, row.repeat});
        INT error = 0;
        const ProtocolList list(PrivateHeap, &error);
        EXPECT_EQ(static_cast<bool>(list), row.count > 0);
        EXPECT_EQ(list.Count(), row.count);
        if (row.count == 0) {
            EXPECT_EQ(error, static_cast<INT>(row.error));
        }
        const std::vector<std::string> calls = platform::CountedCalls();
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "WSCEnumProtocols"), row.reads);
    }
    EXPECT_EQ(platform::CountResources().heapBlocks, blocks) << "each block given back once";
}

}  // namespace
