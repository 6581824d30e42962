// The loaded layer under Winsock and above the base provider: its exports, and real traffic through its
// forwarded operations.
#include <winsock2.h>
#include <ws2spi.h>

#include <cstring>
#include <string>

#include "tests/provider/loaded_layer.h"
#include "tests/support/layer_fixture.h"

namespace {

constexpr DWORD kTcpChainId = 1011;  // the layer's chain over TCP of IPv4

using LayerComponent = LayerFixture;

TEST_F(LayerComponent, ExportsAndStartUpsOfTheLoadedModule) {
    StartWinsock();
    const LoadedLayer layer(Settings().layer);
    GUID guid{};
    layer.Export<void(WSPAPI*)(LPGUID)>("GetLspGuid")(&guid);
    const GUID expected = {0x5d0b7a3e, 0x91c4, 0x4f62, {0xa7, 0xd8, 0x3e, 0x6c, 0x2b, 0x90, 0xf4, 0x15}};
    EXPECT_EQ(std::memcmp(&guid, &expected, sizeof(guid)), 0);

    const auto startup = layer.Export<LPWSPSTARTUP>("WSPStartup");
    ASSERT_NE(startup, nullptr);
    WSPPROC_TABLE table{};
    WSPDATA data{};
    WSAPROTOCOL_INFOW tcp = EntryOf(SOCK_STREAM);
    WSAPROTOCOL_INFOW none{};
    none.iAddressFamily = AF_APPLETALK;
    EXPECT_EQ(startup(MAKEWORD(2, 2), &data, &none, Upcalls(), &table), 10106);
    EXPECT_EQ(CountDebugLines("WSPStartup: FindMatchingLspEntryForProtocolInfo failed!"), 1u);
    EXPECT_EQ(CountDebugLines("ERROR:WSPStartup failed!"), 1u);

    ASSERT_EQ(startup(MAKEWORD(2, 2), &data, &tcp, Upcalls(), &table), 0);
    EXPECT_EQ(data.wHighVersion, MAKEWORD(2, 2)) << "the lower provider's own data";
    EXPECT_NE(data.szDescription[0], 0);
    void* operations[sizeof(table) / sizeof(void*)];
    std::memcpy(operations, &table, sizeof(table));
    for (const void* operation : operations)
        EXPECT_NE(operation, nullptr);
    INT error = 0;
    EXPECT_EQ(table.lpWSPCleanup(&error), 0);
}

TEST_F(LayerComponent, StreamsCarryBytesBothWays) {
    StartWinsock();
    sockaddr_in address = Ipv4("127.0.0.1", 0);
    auto* const name = reinterpret_cast<sockaddr*>(&address);
    int nameLength = sizeof(address);
    const SOCKET listener = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(bind(listener, name, nameLength), 0) << WSAGetLastError();
    ASSERT_EQ(getsockname(listener, name, &nameLength), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    const SOCKET client = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    ASSERT_EQ(connect(client, name, nameLength), 0) << WSAGetLastError();
    const SOCKET server = accept(listener, nullptr, nullptr);
    ASSERT_NE(server, INVALID_SOCKET);
    char buffer[16] = {};
    EXPECT_EQ(send(client, "hello", 5, 0), 5);
    EXPECT_EQ(recv(server, buffer, sizeof(buffer), 0), 5);
    EXPECT_STREQ(buffer, "hello");

    u_long nonBlocking = 1;
    EXPECT_EQ(ioctlsocket(client, static_cast<LONG>(FIONBIO), &nonBlocking), 0);
    EXPECT_EQ(recv(client, buffer, sizeof(buffer), 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);

    EXPECT_EQ(send(server, "back", 4, 0), 4);
    fd_set reads;
    FD_ZERO(&reads);
    FD_SET(client, &reads);
    timeval limit = {10, 0};
    EXPECT_EQ(select(0, &reads, nullptr, nullptr, &limit), 1);
    EXPECT_TRUE(FD_ISSET(client, &reads));
    EXPECT_EQ(recv(client, buffer, sizeof(buffer), 0), 4);

    const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    EXPECT_EQ(WSAEventSelect(client, event, FD_READ | FD_CLOSE), 0);
    EXPECT_EQ(shutdown(server, SD_SEND), 0);
    EXPECT_EQ(WaitForSingleObject(event, 10000), static_cast<DWORD>(WAIT_OBJECT_0));
    WSANETWORKEVENTS events{};
    EXPECT_EQ(WSAEnumNetworkEvents(client, event, &events), 0);
    EXPECT_NE(events.lNetworkEvents & FD_CLOSE, 0);
    CloseHandle(event);

    WSAPROTOCOL_INFOW info;
    int length = sizeof(info);
    EXPECT_EQ(getsockopt(server, SOL_SOCKET, SO_PROTOCOL_INFOW, reinterpret_cast<char*>(&info), &length), 0);
    EXPECT_EQ(info.dwCatalogEntryId, kTcpChainId);
    for (const SOCKET s : {listener, client, server})
        EXPECT_EQ(closesocket(s), 0);
}

}  // namespace
