// Which entry serves a socket, and how the catalog is told to layers and to applications.
#include <winsock2.h>

#include <ws2spi.h>
#include <ws2tcpip.h>

#include <string>
#include <vector>

#include "tests/platform/winsock/host_fixture.h"

namespace {

using winsock_host::AddLayer;
using winsock_host::Catalog;
using winsock_host::MakeBaseCatalog;
using winsock_host::Widen;

Catalog LayeredCatalog() {
    Catalog catalog = MakeBaseCatalog(Widen("/base.so"));
    AddLayer(catalog, Widen("/layer.so"));
    return catalog;
}

TEST(CatalogTest, SocketArgumentsSelectTheFirstEntryThatServesThem) {
    const Catalog catalog = LayeredCatalog();
    constexpr DWORD kTcp = winsock_host::kFirstChainEntry;
    const struct {
        int family, type, protocol;
        DWORD entry;  // 0: the error
        int error;
    } cases[] = {
        {AF_INET, SOCK_STREAM, IPPROTO_TCP, kTcp, 0},
        {AF_INET, SOCK_STREAM, 0, kTcp, 0},
        {AF_INET, 0, IPPROTO_UDP, kTcp + 1, 0},
        {AF_UNSPEC, SOCK_DGRAM, 0, kTcp + 1, 0},
        {AF_INET, SOCK_RAW, 1, kTcp + 2, 0},
        {AF_INET, SOCK_RAW, 255, kTcp + 2, 0},
        {AF_INET, SOCK_RAW, 256, 0, WSAEPROTONOSUPPORT},
        {AF_INET6, SOCK_STREAM, IPPROTO_TCP, kTcp + 3, 0},
        {AF_INET6, SOCK_RAW, 1, 0, WSAESOCKTNOSUPPORT},
        {AF_INET, SOCK_STREAM, IPPROTO_UDP, 0, WSAEPROTONOSUPPORT},
        {AF_INET, SOCK_SEQPACKET, 0, 0, WSAESOCKTNOSUPPORT},
        {AF_UNIX, SOCK_STREAM, 0, 0, WSAEAFNOSUPPORT},
        {0, 0, 0, 0, WSAEINVAL},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.family) + " " + std::to_string(c.type) + " " +
                     std::to_string(c.protocol));
        int error = 0;
        const winsock_host::CatalogEntry* entry =
            catalog.FindBySocketKind(c.family, c.type, c.protocol, &error);
        EXPECT_EQ(entry == nullptr ? 0u : entry->info.dwCatalogEntryId, c.entry);
        if (entry == nullptr) {
            EXPECT_EQ(error, c.error);
        }
    }
}

TEST(CatalogTest, ALayerStandsInFrontWithAChainOverEveryBaseEntry) {
    const Catalog catalog = LayeredCatalog();
    ASSERT_EQ(catalog.entries.size(), 11u);
    for (int i = 0; i < 5; ++i) {
        const WSAPROTOCOL_INFOW& chain = catalog.entries[static_cast<std::size_t>(i)].info;
        const WSAPROTOCOL_INFOW& base = catalog.entries[static_cast<std::size_t>(i) + 5].info;
        EXPECT_EQ(chain.ProtocolChain.ChainLen, 2);
        EXPECT_EQ(chain.ProtocolChain.ChainEntries[0], winsock_host::kLayerEntry);
        EXPECT_EQ(chain.ProtocolChain.ChainEntries[1], base.dwCatalogEntryId);
        EXPECT_EQ(chain.iProtocol, base.iProtocol);
        EXPECT_EQ(chain.dwServiceFlags1 ^ base.dwServiceFlags1, static_cast<DWORD>(XP1_IFS_HANDLES));
        EXPECT_EQ(catalog.FindByProvider(chain.ProviderId), &catalog.entries[static_cast<std::size_t>(i)])
            << "every chain has a provider id of its own";
        EXPECT_EQ(winsock_host::Narrow(catalog.entries[static_cast<std::size_t>(i)].path.c_str()),
                  "/layer.so");
    }
    EXPECT_EQ(catalog.FindByProvider(winsock_host::kLayerProviderId)->info.ProtocolChain.ChainLen, 0);
}

class CatalogApiTest : public HostFixture {};

TEST_F(CatalogApiTest, LayersReadTheWholeCatalog) {
    RestartWith(LayeredCatalog());
    int error = 0;
    DWORD size = 0;
    EXPECT_EQ(WSCEnumProtocols(nullptr, nullptr, &size, &error), SOCKET_ERROR);
    EXPECT_EQ(error, WSAENOBUFS);
    ASSERT_EQ(size, 11 * sizeof(WSAPROTOCOL_INFOW));
    std::vector<WSAPROTOCOL_INFOW> entries(11);
    --size;
    EXPECT_EQ(WSCEnumProtocols(nullptr, entries.data(), &size, &error), SOCKET_ERROR) << "one byte short";
    EXPECT_EQ(size, 11 * sizeof(WSAPROTOCOL_INFOW));
    EXPECT_EQ(WSCEnumProtocols(nullptr, entries.data(), &size, &error), 11);
    EXPECT_EQ(entries[0].dwCatalogEntryId, winsock_host::kFirstChainEntry);
    EXPECT_EQ(entries[10].dwCatalogEntryId, winsock_host::kLayerEntry);

    int udpOnly[] = {IPPROTO_UDP, 0};
    EXPECT_EQ(WSCEnumProtocols(udpOnly, entries.data(), &size, &error), 4);
    EXPECT_EQ(WSCEnumProtocols(nullptr, entries.data(), nullptr, &error), SOCKET_ERROR);
    EXPECT_EQ(error, WSAEFAULT);
}

TEST_F(CatalogApiTest, ApplicationsSeeWhatIsNotHidden) {
    RestartWith(LayeredCatalog());
    DWORD size = 0;
    EXPECT_EQ(WSAEnumProtocolsW(nullptr, nullptr, &size), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAENOBUFS);
    EXPECT_EQ(size, 8 * sizeof(WSAPROTOCOL_INFOW)) << "no raw sockets, no layer entry";
    std::vector<WSAPROTOCOL_INFOA> entries(8);
    int tcpOnly[] = {IPPROTO_TCP, 0};
    size = static_cast<DWORD>(entries.size() * sizeof(WSAPROTOCOL_INFOA));
    ASSERT_EQ(WSAEnumProtocolsA(tcpOnly, entries.data(), &size), 4);
    EXPECT_STREQ(entries[0].szProtocol, "Layer over [TCP/IP]");
    EXPECT_STREQ(entries[3].szProtocol, "TCP/IPv6");
    EXPECT_EQ(entries[3].dwCatalogEntryId, winsock_host::kTcp6Entry);
}

TEST_F(CatalogApiTest, AProviderPathNeedsRoomForItsTerminator) {
    GUID id = winsock_host::kBaseProviderId;
    const auto path = ScriptedProviderModule::Path();
    const int needed = static_cast<int>(path.size()) + 1;
    WCHAR text[MAX_PATH];
    int error = 0;
    int length = needed - 1;
    EXPECT_EQ(WSCGetProviderPath(&id, text, &length, &error), SOCKET_ERROR);
    EXPECT_EQ(error, WSAEFAULT);
    EXPECT_EQ(length, needed);
    EXPECT_EQ(WSCGetProviderPath(&id, text, &length, &error), 0);
    EXPECT_EQ(path, text);
    id.Data1 = 1;
    length = MAX_PATH;
    EXPECT_EQ(WSCGetProviderPath(&id, text, &length, &error), SOCKET_ERROR);
    EXPECT_EQ(error, WSAEINVAL);
}

TEST_F(CatalogApiTest, AddressesGoThroughTheProviderOfTheirFamily) {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    char text[9];
    DWORD length = 8;
    const auto convert = [&] {
        return WSAAddressToStringA(reinterpret_cast<sockaddr*>(&address), sizeof(address), nullptr, text,
                                   &length);
    };
    EXPECT_EQ(convert(), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
    EXPECT_EQ(length, 9u) << "what the provider needs";
    EXPECT_EQ(convert(), 0);
    EXPECT_STREQ(text, "scripted");
    const auto calls = provider_->Calls(ProviderOperation::kAddressToString);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1].info.dwCatalogEntryId, winsock_host::kTcp6Entry);
    EXPECT_EQ(calls[1].address.size(), sizeof(address));

    // A named entry goes before the family.
    WSAPROTOCOL_INFOA info{};
    info.dwCatalogEntryId = winsock_host::kUdpEntry;
    sockaddr_storage parsed{};
    int parsedLength = sizeof(parsed);
    ProviderReply reply;
    reply.address = std::string("\x02\x00", 2);
    provider_->ReplyOnce(ProviderOperation::kStringToAddress, reply);
    char given[] = "1.2.3.4";
    EXPECT_EQ(WSAStringToAddressA(given, AF_INET, &info, reinterpret_cast<sockaddr*>(&parsed), &parsedLength),
              0);
    EXPECT_EQ(parsed.ss_family, AF_INET);
    EXPECT_EQ(parsedLength, 2);
    const auto parses = provider_->Calls(ProviderOperation::kStringToAddress);
    EXPECT_EQ(parses.at(0).data, "1.2.3.4");
    EXPECT_EQ(parses.at(0).info.dwCatalogEntryId, winsock_host::kUdpEntry);

    address.sin6_family = AF_UNIX;
    EXPECT_EQ(convert(), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEINVAL);
}

}  // namespace
