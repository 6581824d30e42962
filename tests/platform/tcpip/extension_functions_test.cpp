// Connections that are made, ended and fed by the extension functions.
#include "platform/testing/clock.h"
#include "platform/testing/machine.h"
#include "tests/platform/tcpip/overlapped_base_provider.h"

namespace {

constexpr DWORD kAddressRoom = 144;

TEST_F(OverlappedTest, AcceptExAndConnectExMakeAConnectionThatWantsItsContexts) {
    sockaddr_in name;
    const SOCKET listener = Listener(&name);
    const SOCKET accepted = Stream();
    SetNumber(accepted, IPPROTO_TCP, TCP_NODELAY, 1);
    const SOCKET client = Stream();
    const auto acceptEx = Extension<LPFN_ACCEPTEX>(listener, WSAID_ACCEPTEX);
    const auto connectEx = Extension<LPFN_CONNECTEX>(client, WSAID_CONNECTEX);
    const auto parse = Extension<LPFN_GETACCEPTEXSOCKADDRS>(listener, WSAID_GETACCEPTEXSOCKADDRS);
    Associate(listener);
    Associate(client);
    alignas(8) char output[16 + 2 * kAddressRoom] = {};
    DWORD received = 0;
    OVERLAPPED accepting = {}, connecting = {};
    if (Keeps(Documented::kAcceptExChecksItsRoom)) {
        EXPECT_FALSE(acceptEx(listener, accepted, output, 16, 31, 32, &received, &accepting));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(WSAEINVAL));
    }
    EXPECT_FALSE(acceptEx(listener, accepted, output, 16, kAddressRoom, kAddressRoom, &received, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(WSA_INVALID_PARAMETER)) << "no record";
    ASSERT_FALSE(acceptEx(listener, accepted, output, 16, kAddressRoom, kAddressRoom, &received, &accepting));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(WSA_IO_PENDING));

    const auto* target = reinterpret_cast<const sockaddr*>(&name);
    char hello[] = "hello";
    DWORD sent = 0;
    EXPECT_FALSE(connectEx(client, target, sizeof(name), hello, 5, &sent, &connecting));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(WSAEINVAL)) << "not bound";
    Bound(client);
    EXPECT_FALSE(connectEx(client, target, sizeof(name), hello, 5, &sent, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(WSA_INVALID_PARAMETER)) << "no record";
    EXPECT_FALSE(connectEx(client, target, sizeof(name), hello, 5, &sent, &connecting));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(WSA_IO_PENDING));
    DWORD bytesOf[2] = {};
    for (int i = 0; i < 2; ++i) {
        OVERLAPPED* overlapped = nullptr;
        DWORD error = 0;
        const DWORD bytes = NextPacket(port_, &overlapped, &error);
        EXPECT_EQ(error, 0u);
        bytesOf[overlapped == &accepting ? 0 : 1] = bytes;
    }
    EXPECT_EQ(bytesOf[0], 5u);
    EXPECT_EQ(bytesOf[1], 5u);
    EXPECT_EQ(std::string(output, 5), "hello");
    sockaddr *local = nullptr, *remote = nullptr;
    int localSize = 0, remoteSize = 0;
    parse(output, 16, kAddressRoom, kAddressRoom, &local, &localSize, &remote, &remoteSize);
    EXPECT_EQ(localSize, 16);
    EXPECT_EQ(Text(*reinterpret_cast<sockaddr_in*>(local)), Text(name));
    EXPECT_EQ(Text(*reinterpret_cast<sockaddr_in*>(remote)), Text(NameOf(client)));

    for (const SOCKET s : {accepted, client}) {
        sockaddr_in peer = {};
        int length = sizeof(peer);
        if (Keeps(Documented::kContextsAreMissing)) {
            EXPECT_EQ(CALL(GetPeerName, s, reinterpret_cast<sockaddr*>(&peer), &length), SOCKET_ERROR);
            EXPECT_EQ(Error, WSAENOTCONN);
            EXPECT_EQ(CALL(Shutdown, s, SD_SEND), SOCKET_ERROR);
            EXPECT_EQ(Error, WSAENOTCONN);
        }
        const SOCKET context = listener;
        const int option = s == accepted ? SO_UPDATE_ACCEPT_CONTEXT : SO_UPDATE_CONNECT_CONTEXT;
        ASSERT_EQ(
            CALL(SetSockOpt, s, SOL_SOCKET, option, reinterpret_cast<const char*>(&context), sizeof(context)),
            0);
        EXPECT_EQ(CALL(GetPeerName, s, reinterpret_cast<sockaddr*>(&peer), &length), 0);
    }
    if (Keeps(Documented::kAcceptSocketsKeepTheirOptions)) {
        EXPECT_EQ(GetNumber(accepted, IPPROTO_TCP, TCP_NODELAY), 1);
    }
    EXPECT_EQ(Send(accepted, "reply"), 5);
    EXPECT_EQ(Receive(client), "reply");
    EXPECT_EQ(CALL(Shutdown, client, SD_SEND), 0);
    EXPECT_EQ(Receive(accepted), "");
    ExpectNoPacket();
}

TEST_F(OverlappedTest, RefusedConnectExTellsItsReason) {
    const SOCKET s = Bound(Stream());
    Associate(s);
    const auto connectEx = Extension<LPFN_CONNECTEX>(s, WSAID_CONNECTEX);
    const sockaddr_in name = RefusingName();
    OVERLAPPED overlapped = {};
    ASSERT_FALSE(connectEx(s, reinterpret_cast<const sockaddr*>(&name), sizeof(name), nullptr, 0, nullptr,
                           &overlapped));
    ASSERT_EQ(GetLastError(), static_cast<DWORD>(WSA_IO_PENDING));
    ExpectPacket(&overlapped, ERROR_CONNECTION_REFUSED);
    DWORD bytes = 0;
    EXPECT_EQ(ResultOf(s, &overlapped, &bytes), WSAECONNREFUSED);
    if (Keeps(Documented::kContextsAreMissing)) {
        EXPECT_EQ(SetNumber(s, SOL_SOCKET, SO_UPDATE_CONNECT_CONTEXT, 0), SOCKET_ERROR);
        EXPECT_EQ(Error, WSAENOTCONN);
    }
}

TEST_F(OverlappedTest, AcceptExEndsWithEitherSocket) {
    sockaddr_in name;
    const SOCKET listener = Listener(&name);
    Associate(listener);
    const auto acceptEx = Extension<LPFN_ACCEPTEX>(listener, WSAID_ACCEPTEX);
    char outputs[2][2 * kAddressRoom];
    OVERLAPPED overlapped[2] = {};
    SOCKET accepting[2];
    for (int i = 0; i < 2; ++i) {
        accepting[i] = Stream();
        EXPECT_FALSE(acceptEx(listener, accepting[i], outputs[i], 0, kAddressRoom, kAddressRoom, nullptr,
                              &overlapped[i]));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(WSA_IO_PENDING));
    }
    // One whose request was cancelled is free for another.
    EXPECT_TRUE(CancelIoEx(reinterpret_cast<HANDLE>(listener), &overlapped[0]));
    ExpectPacket(&overlapped[0], ERROR_OPERATION_ABORTED);
    EXPECT_FALSE(
        acceptEx(listener, accepting[0], outputs[0], 0, kAddressRoom, kAddressRoom, nullptr, &overlapped[0]));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(WSA_IO_PENDING));
    Close(accepting[0]);
    ExpectPacket(&overlapped[0], ERROR_OPERATION_ABORTED);
    Close(listener);
    ExpectPacket(&overlapped[1], ERROR_OPERATION_ABORTED);
}

TEST_F(OverlappedTest, AcceptExTakesAnIPv6SocketWithItsOptions) {
    sockaddr_in6 name;
    const SOCKET listener = ListenerV6(&name);
    if (listener == INVALID_SOCKET) GTEST_SKIP() << "no IPv6 here";
    Associate(listener);
    const SOCKET accepting = Stream(AF_INET6);
    EXPECT_EQ(SetNumber(accepting, IPPROTO_IPV6, IPV6_V6ONLY, 1), 0);
    const auto acceptEx = Extension<LPFN_ACCEPTEX>(listener, WSAID_ACCEPTEX);
    char output[2 * kAddressRoom];
    OVERLAPPED overlapped = {};
    EXPECT_FALSE(acceptEx(listener, accepting, output, 0, kAddressRoom, kAddressRoom, nullptr, &overlapped));
    const SOCKET client = Stream(AF_INET6);
    ASSERT_EQ(Connect(client, name), 0) << Error;
    ExpectPacket(&overlapped);
    EXPECT_EQ(Send(client, "six"), 3);
    EXPECT_EQ(Receive(accepting), "six");
    // The next one is accepted as any other connection is.
    const SOCKET second = Stream(AF_INET6);
    ASSERT_EQ(Connect(second, name), 0) << Error;
    EXPECT_EQ(Send(Accept(listener), "plain"), 5);
    EXPECT_EQ(Receive(second), "plain");
}

TEST_F(OverlappedTest, DisconnectedSocketConnectsAgain) {
    sockaddr_in name;
    const SOCKET listener = Listener(&name);
    const SOCKET s = Bound(Stream());
    const auto connectEx = Extension<LPFN_CONNECTEX>(s, WSAID_CONNECTEX);
    const auto disconnectEx = Extension<LPFN_DISCONNECTEX>(s, WSAID_DISCONNECTEX);
    EXPECT_FALSE(disconnectEx(s, nullptr, 0, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(WSAENOTCONN));
    Associate(s);
    const int rounds = Keeps(Documented::kSocketsAreReused) ? 3 : 1;
    for (int round = 0; round < rounds; ++round) {
        OVERLAPPED overlapped = {};
        EXPECT_FALSE(connectEx(s, reinterpret_cast<const sockaddr*>(&name), sizeof(name), nullptr, 0, nullptr,
                               &overlapped));
        ExpectPacket(&overlapped);
        EXPECT_EQ(SetNumber(s, SOL_SOCKET, SO_UPDATE_CONNECT_CONTEXT, 0), 0);
        const SOCKET server = Accept(listener);
        EXPECT_EQ(Send(s, "round"), 5);
        EXPECT_EQ(Receive(server), "round");
        // Waiting works on every new connection, though the descriptor was watched for an earlier one.
        char data[8];
        OVERLAPPED receive = {};
        EXPECT_EQ(StartReceive(s, data, 8, &receive), WSA_IO_PENDING);
        EXPECT_EQ(Send(server, "bye"), 3);
        EXPECT_EQ(ExpectPacket(&receive), 3u);
        ASSERT_TRUE(disconnectEx(s, round == 1 ? &overlapped : nullptr, TF_REUSE_SOCKET, 0))
            << GetLastError();
        if (round == 1) ExpectPacket(&overlapped);
        EXPECT_EQ(Receive(server), "");
    }
}

TEST_F(OverlappedTest, TransmittedPiecesArriveInOrder) {
    SOCKET client, server;
    Connect(&client, &server);
    Associate(client);
    const auto transmitFile = Extension<LPFN_TRANSMITFILE>(client, WSAID_TRANSMITFILE);
    const auto transmitPackets = Extension<LPFN_TRANSMITPACKETS>(client, WSAID_TRANSMITPACKETS);
    TRANSMIT_PACKETS_ELEMENT elements[2] = {};
    char one[] = "one,", two[] = "two,", tail[] = "end";
    elements[0].dwElFlags = elements[1].dwElFlags = TP_ELEMENT_MEMORY;
    elements[0].cLength = elements[1].cLength = 4;
    elements[0].pBuffer = one;
    elements[1].pBuffer = two;
    OVERLAPPED overlapped = {};
    EXPECT_TRUE(transmitPackets(client, elements, 2, 0, &overlapped, 0));
    EXPECT_EQ(ExpectPacket(&overlapped), 8u);
    TRANSMIT_FILE_BUFFERS buffers = {two, 4, tail, 3};
    EXPECT_TRUE(transmitFile(client, nullptr, 0, 0, nullptr, &buffers, TF_DISCONNECT));
    if (!Keeps(Documented::kTransmitFileDisconnects)) {
        EXPECT_EQ(CALL(Shutdown, client, SD_SEND), 0);
    }
    std::string all;
    for (std::string piece; !(piece = Receive(server)).empty();)
        all += piece;
    EXPECT_EQ(all, "one,two,two,end");
    EXPECT_FALSE(transmitFile(server, port_, 0, 0, nullptr, nullptr, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(WSA_INVALID_HANDLE));
}

#ifndef _WIN32
// The system's own provider waits in real time.
TEST_F(OverlappedTest, PendingConnectExTimesOutByThePlatformClock) {
    platform::MachineRoute route;
    route.destinationAddress = "203.0.113.99";
    route.blackHole = true;
    platform::SetMachineForTest(MachineWithRoutes({route}));
    const SOCKET s = Bound(Stream());
    Associate(s);
    const auto connectEx = Extension<LPFN_CONNECTEX>(s, WSAID_CONNECTEX);
    const sockaddr_in name = At("203.0.113.99", 1);
    OVERLAPPED overlapped = {};
    platform::ScopedClockRate stopped(0);
    ASSERT_FALSE(connectEx(s, reinterpret_cast<const sockaddr*>(&name), sizeof(name), nullptr, 0, nullptr,
                           &overlapped));
    ASSERT_EQ(GetLastError(), static_cast<DWORD>(WSA_IO_PENDING));
    ASSERT_TRUE(platform::WaitForTimedWaits(1));
    platform::AdvanceClock(21001);
    ExpectPacket(&overlapped, ERROR_SEM_TIMEOUT);
    platform::SetMachineForTest(MachineWithRoutes({}));
}
#endif

}  // namespace
