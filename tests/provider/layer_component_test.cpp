// The loaded layer under Winsock and above the base provider: its start and end, and real traffic through its
// forwarded operations.
#include <winsock2.h>
#include <ws2spi.h>

#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "tests/provider/loaded_layer.h"
#include "tests/support/layer_fixture.h"

namespace {

constexpr DWORD kTcpChainId = 1011;  // the layer's chain over TCP of IPv4

using LayerComponent = LayerFixture;

sockaddr* AsName(sockaddr_in& address) {
    return reinterpret_cast<sockaddr*>(&address);
}

/// A socket bound to a loopback port of the system's choice, and its address.
SOCKET BoundSocket(int type, sockaddr_in* address) {
    const SOCKET s = socket(AF_INET, type, 0);
    EXPECT_NE(s, INVALID_SOCKET) << WSAGetLastError();
    *address = Ipv4("127.0.0.1", 0);
    EXPECT_EQ(bind(s, AsName(*address), sizeof(*address)), 0) << WSAGetLastError();
    int length = sizeof(*address);
    EXPECT_EQ(getsockname(s, AsName(*address), &length), 0);
    EXPECT_NE(address->sin_port, 0);
    return s;
}

/// Both ends of a connection between two sockets of the layer.
struct Connection {
    SOCKET client = INVALID_SOCKET;
    SOCKET server = INVALID_SOCKET;
    ~Connection() {
        EXPECT_EQ(closesocket(client), 0);
        EXPECT_EQ(closesocket(server), 0);
    }
    void Make() {
        sockaddr_in address{};
        const SOCKET listener = BoundSocket(SOCK_STREAM, &address);
        ASSERT_EQ(listen(listener, 1), 0);
        client = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        ASSERT_EQ(connect(client, AsName(address), sizeof(address)), 0) << WSAGetLastError();
        server = accept(listener, nullptr, nullptr);
        ASSERT_NE(server, INVALID_SOCKET);
        EXPECT_EQ(closesocket(listener), 0);
    }
};

TEST_F(LayerComponent, StartsAndEndsAsOftenAsItIsUsed) {
    for (int round = 0; round < 10; ++round) {
        StartWinsock();
        WSADATA data{};
        ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
        const SOCKET tcp = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        EXPECT_EQ(WSACleanup(), 0) << "not the last one: the sockets live on";
        const SOCKET udp = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
        EXPECT_NE(tcp, INVALID_SOCKET);
        EXPECT_NE(udp, INVALID_SOCKET);
        if (round % 2 == 0) {
            EXPECT_EQ(closesocket(tcp), 0);
            EXPECT_EQ(closesocket(udp), 0);
        }
        StopWinsock();  // closes what the application forgot
    }
}

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
    WSAPROTOCOL_INFOW udp = EntryOf(SOCK_DGRAM);
    WSAPROTOCOL_INFOW none{};
    none.iAddressFamily = AF_APPLETALK;
    EXPECT_EQ(startup(MAKEWORD(2, 2), &data, &none, Upcalls(), &table), 10106);
    EXPECT_EQ(CountDebugLines("WSPStartup: FindMatchingLspEntryForProtocolInfo failed!"), 1u);
    EXPECT_EQ(CountDebugLines("ERROR:WSPStartup failed!"), 1u);

    ASSERT_EQ(startup(MAKEWORD(2, 2), &data, &tcp, Upcalls(), &table), 0);
    ASSERT_EQ(startup(MAKEWORD(2, 2), &data, &udp, Upcalls(), &table), 0);
    EXPECT_EQ(data.wHighVersion, MAKEWORD(2, 2)) << "the lower provider's own data";
    EXPECT_NE(data.szDescription[0], 0);
    void* operations[sizeof(table) / sizeof(void*)];
    std::memcpy(operations, &table, sizeof(table));
    for (const void* operation : operations)
        EXPECT_NE(operation, nullptr);

    INT error = 0;
    EXPECT_EQ(table.lpWSPCleanup(&error), 0);
    EXPECT_NE(table.lpWSPSocket(AF_INET, SOCK_STREAM, 0, &tcp, 0, 0, &error), INVALID_SOCKET) << error;
    EXPECT_EQ(table.lpWSPCleanup(&error), 0);
    EXPECT_EQ(table.lpWSPCleanup(&error), SOCKET_ERROR);
    EXPECT_EQ(error, WSANOTINITIALISED);
}

TEST_F(LayerComponent, StreamsCarryBytesBothWays) {
    StartWinsock();
    {
        Connection connection;
        connection.Make();
        char buffer[16] = {};
        EXPECT_EQ(send(connection.client, "hello", 5, 0), 5);
        EXPECT_EQ(recv(connection.server, buffer, sizeof(buffer), 0), 5);
        EXPECT_STREQ(buffer, "hello");

        u_long nonBlocking = 1;
        EXPECT_EQ(ioctlsocket(connection.client, static_cast<LONG>(FIONBIO), &nonBlocking), 0);
        EXPECT_EQ(recv(connection.client, buffer, sizeof(buffer), 0), SOCKET_ERROR);
        EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);

        EXPECT_EQ(send(connection.server, "back", 4, 0), 4);
        fd_set reads;
        FD_ZERO(&reads);
        FD_SET(connection.client, &reads);
        timeval limit = {10, 0};
        EXPECT_EQ(select(0, &reads, nullptr, nullptr, &limit), 1);
        EXPECT_TRUE(FD_ISSET(connection.client, &reads));
        EXPECT_EQ(recv(connection.client, buffer, sizeof(buffer), 0), 4);

        const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        EXPECT_EQ(WSAEventSelect(connection.client, event, FD_READ | FD_CLOSE), 0);
        EXPECT_EQ(shutdown(connection.server, SD_SEND), 0);
        EXPECT_EQ(WaitForSingleObject(event, 10000), static_cast<DWORD>(WAIT_OBJECT_0));
        WSANETWORKEVENTS events{};
        EXPECT_EQ(WSAEnumNetworkEvents(connection.client, event, &events), 0);
        EXPECT_NE(events.lNetworkEvents & FD_CLOSE, 0);
        CloseHandle(event);

        WSAPROTOCOL_INFOW info;
        int length = sizeof(info);
        EXPECT_EQ(getsockopt(connection.server, SOL_SOCKET, SO_PROTOCOL_INFOW, reinterpret_cast<char*>(&info),
                             &length),
                  0);
        EXPECT_EQ(info.dwCatalogEntryId, kTcpChainId);
    }
}

TEST_F(LayerComponent, DatagramsAndOtherFamilies) {
    StartWinsock();
    sockaddr_in firstAddress{};
    sockaddr_in secondAddress{};
    const SOCKET first = BoundSocket(SOCK_DGRAM, &firstAddress);
    const SOCKET second = BoundSocket(SOCK_DGRAM, &secondAddress);
    EXPECT_EQ(sendto(first, "ping", 4, 0, AsName(secondAddress), sizeof(secondAddress)), 4);
    char buffer[8] = {};
    sockaddr_in from{};
    int length = sizeof(from);
    EXPECT_EQ(recvfrom(second, buffer, sizeof(buffer), 0, AsName(from), &length), 4);
    EXPECT_EQ(from.sin_port, firstAddress.sin_port);
    EXPECT_EQ(closesocket(first), 0);
    EXPECT_EQ(closesocket(second), 0);

    const SOCKET v6 = socket(AF_INET6, SOCK_STREAM, IPPROTO_TCP);
    EXPECT_NE(v6, INVALID_SOCKET);
    EXPECT_EQ(closesocket(v6), 0);
    char text[32] = {};
    DWORD textLength = sizeof(text);
    EXPECT_EQ(WSAAddressToStringA(AsName(secondAddress), sizeof(secondAddress), nullptr, text, &textLength),
              0);
    EXPECT_EQ(std::string(text).rfind("127.0.0.1:", 0), 0u);
}

TEST_F(LayerComponent, CloseEndsAnotherThreadsReceive) {
    StartWinsock();
    Connection connection;
    connection.Make();
    const SOCKET client = connection.client;
    std::promise<void> started;
    auto receiver = std::async(std::launch::async, [&] {
        char byte;
        started.set_value();
        return recv(client, &byte, 1, 0) > 0 ? 0 : 1;
    });
    started.get_future().wait();
    EXPECT_EQ(closesocket(client), 0);
    EXPECT_EQ(receiver.get(), 1);
    connection.client = socket(AF_INET, SOCK_STREAM, 0);  // for the end of the connection to close
}

}  // namespace
