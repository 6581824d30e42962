// Streams without overlapped requests: connecting, transferring, ending, and what wakes a blocked caller.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "platform/kernel/fault_points.h"
#include "tests/platform/tcpip/base_provider.h"

namespace {

using StreamTest = BaseProvider;

TEST_F(StreamTest, CarriesBytesBothWaysUntilBothSidesHaveEnded) {
    SOCKET client, server;
    Connect(&client, &server);
    EXPECT_EQ(Send(client, "hello"), 5);
    EXPECT_EQ(Receive(server, 100, MSG_PEEK), "hello");
    EXPECT_EQ(Receive(server, 2), "he");
    WSABUF pieces[3];
    char first[1], second[5];
    pieces[0] = {1, first};
    pieces[1] = {0, nullptr};
    pieces[2] = {5, second};
    DWORD received = 0, flags = 0;
    ASSERT_EQ(CALL(Recv, server, pieces, 3, &received, &flags, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(received, 3u);
    EXPECT_EQ(std::string(first, 1) + std::string(second, 2), "llo");

    EXPECT_EQ(CALL(Shutdown, client, SD_SEND), 0);
    EXPECT_EQ(CALL(Shutdown, client, SD_SEND), 0);
    EXPECT_EQ(Send(client, "x"), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAESHUTDOWN);
    EXPECT_EQ(Receive(server), "");
    EXPECT_EQ(Send(server, "answer"), 6);
    EXPECT_EQ(Receive(client), "answer");
    EXPECT_EQ(CALL(Shutdown, client, SD_RECEIVE), 0);
    EXPECT_EQ(Receive(client), "error 10058");
    EXPECT_EQ(CALL(Shutdown, client, 3), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEINVAL);
}

TEST_F(StreamTest, NamesBothEnds) {
    sockaddr_in listening;
    const SOCKET listener = Listener(&listening);
    const SOCKET client = Stream();
    sockaddr_in name = {};
    int length = sizeof(name);
    EXPECT_EQ(CALL(GetSockName, client, reinterpret_cast<sockaddr*>(&name), &length), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEINVAL);
    EXPECT_EQ(CALL(GetPeerName, client, reinterpret_cast<sockaddr*>(&name), &length), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAENOTCONN);
    ASSERT_EQ(Connect(client, listening), 0);
    sockaddr_in accepted = {};
    length = sizeof(accepted);
    const SOCKET server = CALL(Accept, listener, reinterpret_cast<sockaddr*>(&accepted), &length, nullptr, 0);
    ASSERT_NE(server, INVALID_SOCKET);
    EXPECT_EQ(Text(accepted), Text(NameOf(client)));
    EXPECT_EQ(Text(NameOf(server)), Text(listening));
    ASSERT_EQ(CALL(GetPeerName, server, reinterpret_cast<sockaddr*>(&name), &length), 0);
    EXPECT_EQ(Text(name), Text(accepted));
    length = 15;
    EXPECT_EQ(CALL(GetPeerName, server, reinterpret_cast<sockaddr*>(&name), &length), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEFAULT);
}

TEST_F(StreamTest, RefusesCallsThatDoNotFitTheState) {
    sockaddr_in listening;
    const SOCKET listener = Listener(&listening);
    const SOCKET s = Stream();
    EXPECT_EQ(Send(s, "x"), SOCKET_ERROR);
    if (Keeps(Documented::kSendNeedsAConnection)) {
        EXPECT_EQ(Error, WSAENOTCONN);
    }
    EXPECT_EQ(Receive(s), "error 10057");
    EXPECT_EQ(CALL(Shutdown, s, SD_BOTH), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAENOTCONN);
    EXPECT_EQ(CALL(Listen, s, 1), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEINVAL);
    EXPECT_EQ(Accept(s), INVALID_SOCKET);
    EXPECT_EQ(Error, WSAEINVAL);
    const struct {
        sockaddr_in name;
        int length;
        int error;
        bool sent;  // the system decides about the address, not the provider
    } bad[] = {
        {listening, 15, WSAEFAULT, false},
        {At("0.0.0.0", 80), sizeof(sockaddr_in), WSAEADDRNOTAVAIL, true},
        {At("127.0.0.1", 0), sizeof(sockaddr_in), WSAEADDRNOTAVAIL, true},
        {At("198.51.100.7", 80), sizeof(sockaddr_in), WSAENETUNREACH, false},
    };
    for (const auto& row : bad) {
        if (row.sent && !Keeps(Documented::kConnectChecksItsAddress)) continue;
        const auto* name = reinterpret_cast<const sockaddr*>(&row.name);
        EXPECT_EQ(CALL(Connect, s, name, row.length, nullptr, nullptr, nullptr, nullptr), SOCKET_ERROR);
        EXPECT_EQ(Error, row.error) << Text(row.name);
    }
    ASSERT_EQ(Connect(s, listening), 0);
    EXPECT_EQ(Connect(s, listening), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEISCONN);
    EXPECT_EQ(Connect(listener, listening), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEINVAL);
    Close(s);
    EXPECT_EQ(Send(s, "x"), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAENOTSOCK);
    EXPECT_EQ(CALL(CloseSocket, s), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAENOTSOCK);
    const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    EXPECT_EQ(Receive(reinterpret_cast<SOCKET>(event)), "error 10038");
    CloseHandle(event);
}

TEST_F(StreamTest, TellsWhichSocketKindsExist) {
    const struct {
        int family, type, protocol, error;
    } rows[] = {
        {AF_IPX, SOCK_STREAM, IPPROTO_TCP, WSAEAFNOSUPPORT},
        {AF_INET, SOCK_STREAM, IPPROTO_UDP, WSAEPROTOTYPE},
        {AF_INET, SOCK_DGRAM, IPPROTO_TCP, WSAEPROTONOSUPPORT},
        {AF_INET, SOCK_RDM, 0, WSAESOCKTNOSUPPORT},
    };
    for (const auto& row : rows) {
        WSAPROTOCOL_INFOW info = Protocol(row.family, row.type, row.protocol);
        EXPECT_EQ(CALL(Socket, row.family, row.type, row.protocol, &info, 0, 0), INVALID_SOCKET);
        if (row.error == WSAEPROTOTYPE && !Keeps(Documented::kWrongProtocolType)) continue;
        EXPECT_EQ(Error, row.error);
    }
}

TEST_F(StreamTest, RefusedConnectCanBeRepeated) {
    const SOCKET s = Stream();
    EXPECT_EQ(Connect(s, RefusingName()), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAECONNREFUSED);
    if (Keeps(Documented::kSoErrorIsReadOnce)) {
        EXPECT_EQ(GetNumber(s, SOL_SOCKET, SO_ERROR), 0);
    }
    sockaddr_in name;
    Listener(&name);
    if (Keeps(Documented::kRefusedSocketConnectsAgain)) {
        EXPECT_EQ(Connect(s, name), 0) << Error;
    }
}

TEST_F(StreamTest, NonBlockingConnectEndsInWriteOrExceptSet) {
    sockaddr_in name;
    const SOCKET listener = Listener(&name);
    const SOCKET good = Stream();
    ASSERT_EQ(SetNonBlocking(good, 1), 0);
    EXPECT_EQ(Connect(good, name), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEWOULDBLOCK);
    EXPECT_TRUE(WaitFor(good, 'w'));
    EXPECT_EQ(GetNumber(good, SOL_SOCKET, SO_CONNECT_TIME), 0);
    EXPECT_EQ(Connect(good, name), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEISCONN);
    EXPECT_EQ(Receive(good), "error 10035");

    const SOCKET refused = Stream();
    ASSERT_EQ(SetNonBlocking(refused, 1), 0);
    EXPECT_EQ(Connect(refused, RefusingName()), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEWOULDBLOCK);
    EXPECT_TRUE(WaitFor(refused, 'e'));
    fd_set read = {1, {refused}}, write = {1, {refused}}, except = {1, {refused}};
    timeval none = {0, 0};
    EXPECT_EQ(CALL(Select, 0, &read, &write, &except, &none), 1);
    EXPECT_EQ(read.fd_count + write.fd_count, 0u);
    EXPECT_EQ(GetNumber(refused, SOL_SOCKET, SO_ERROR), WSAECONNREFUSED);
    if (Keeps(Documented::kSoErrorIsReadOnce)) {
        EXPECT_EQ(GetNumber(refused, SOL_SOCKET, SO_ERROR), 0);
    }
    EXPECT_EQ(GetNumber(refused, SOL_SOCKET, SO_CONNECT_TIME), -1);
    const SOCKET again = Keeps(Documented::kRefusedSocketConnectsAgain) ? refused : Stream();
    ASSERT_EQ(SetNonBlocking(again, 1), 0);
    EXPECT_EQ(Connect(again, name), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEWOULDBLOCK);
    EXPECT_TRUE(WaitFor(again, 'w'));
    // Blocking again, the socket waits for data as if it had always been.
    ASSERT_EQ(SetNonBlocking(again, 0), 0);
    Accept(listener);
    const SOCKET server = Accept(listener);
    std::thread sender([&] { Send(server, "late"); });
    EXPECT_EQ(Receive(again), "late");
    sender.join();
}

TEST_F(StreamTest, WhatComesBehindAConnectIsSeenByWhoeverReadsAlone) {
    sockaddr_in name;
    const SOCKET listener = Listener(&name);
    const SOCKET s = Stream();
    ASSERT_EQ(SetNonBlocking(s, 1), 0);
    EXPECT_EQ(Connect(s, name), SOCKET_ERROR);
    EXPECT_EQ(Send(Accept(listener), "banner"), 6);
    EXPECT_TRUE(WaitFor(s, 'r'));
    EXPECT_EQ(Receive(s), "banner");
}

TEST_F(StreamTest, CloseWakesWhoeverIsBlockedOnTheSocket) {
    SOCKET client, server;
    Connect(&client, &server);
    sockaddr_in name;
    const SOCKET listener = Listener(&name);
    const SOCKET datagrams = Bound(Datagram());
    const SOCKET selected = Bound(Datagram());
    std::atomic<int> started{0};
    int errors[4] = {};
    const auto receive = [&](SOCKET s, int* error) {
        ++started;
        Receive(s, 1);
        *error = Error;
    };
    std::thread threads[] = {
        std::thread(receive, client, &errors[0]),
        std::thread(receive, datagrams, &errors[1]),
        std::thread([&] {
            ++started;
            Accept(listener);
            errors[2] = Error;
        }),
        std::thread([&] {
            fd_set read = {1, {selected}};
            ++started;
            CALL(Select, 0, &read, nullptr, nullptr, nullptr);
            errors[3] = Error;
        }),
    };
    while (started < 4)
        std::this_thread::yield();
    for (const SOCKET s : {client, datagrams, listener, selected})
        Close(s);
    for (std::thread& thread : threads)
        thread.join();
    if (!Keeps(Documented::kCloseWakesWithInterrupt)) return;
    // Who had not yet reached the kernel finds no socket at all.
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(errors[i] == WSAEINTR || errors[i] == WSAENOTSOCK) << i << errors[i];
    EXPECT_EQ(errors[3], WSAENOTSOCK);
}

TEST_F(StreamTest, ResetFailsEveryLaterCall) {
    SOCKET client, server;
    Connect(&client, &server);
    Abort(server);
    std::vector<std::string> told = {Receive(client)};
    EXPECT_EQ(Send(client, "x"), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAECONNRESET);
    told.push_back(Receive(client));
    ASSERT_EQ(SetNonBlocking(client, 1), 0);
    told.push_back(Receive(client));
    if (Keeps(Documented::kResetIsToldLate)) {
        EXPECT_EQ(told, std::vector<std::string>(3, "error 10054"));
    }
}

TEST_F(StreamTest, UrgentDataGoesBesideTheStream) {
    SOCKET client, server;
    Connect(&client, &server);
    EXPECT_EQ(Send(client, "ab!", MSG_OOB), 3);
    EXPECT_TRUE(WaitFor(server, 'e'));
    EXPECT_EQ(Receive(server, 10), "ab");
    ULONG noneLeft = 7;
    DWORD returned = 0;
    EXPECT_EQ(CALL(Ioctl, server, SIOCATMARK, nullptr, 0, &noneLeft, 4, &returned, nullptr, nullptr, nullptr),
              0);
    EXPECT_EQ(noneLeft, 0u);
    EXPECT_EQ(Receive(server, 10, MSG_OOB), "!");
    ASSERT_EQ(SetNonBlocking(server, 1), 0);
    EXPECT_EQ(Receive(server, 10, MSG_OOB), "error 10035");
}

struct Condition {
    int answer;
    std::string caller;
};

int CALLBACK Decide(LPWSABUF caller, LPWSABUF, LPQOS, LPQOS, LPWSABUF, LPWSABUF, GROUP*, DWORD_PTR context) {
    auto* condition = reinterpret_cast<Condition*>(context);
    sockaddr_in name;
    memcpy(&name, caller->buf, sizeof(name));
    condition->caller = std::to_string(ntohs(name.sin_port));
    return condition->answer;
}

TEST_F(StreamTest, ConditionFunctionDecidesAboutTheConnection) {
    sockaddr_in name;
    const SOCKET listener = Listener(&name);
    Condition condition = {CF_DEFER, ""};
    ASSERT_EQ(SetNonBlocking(listener, 1), 0);
    const auto accept = [&] {
        return CALL(Accept, listener, nullptr, nullptr, Decide, reinterpret_cast<DWORD_PTR>(&condition));
    };
    const SOCKET first = Stream();
    ASSERT_EQ(Connect(first, name), 0);
    ASSERT_TRUE(WaitFor(listener, 'r'));
    EXPECT_EQ(accept(), INVALID_SOCKET);
    EXPECT_EQ(Error, WSATRY_AGAIN);
    EXPECT_EQ(condition.caller, std::to_string(PortOf(NameOf(first))));
    if (Keeps(Documented::kDeferredConnectionIsReady)) {
        EXPECT_TRUE(WaitFor(listener, 'r'));
    }
    condition.answer = CF_ACCEPT;
    ASSERT_EQ(SetNonBlocking(listener, 0), 0);
    const SOCKET accepted = accept();
    ASSERT_NE(accepted, INVALID_SOCKET);
    // The new socket blocks as its listener does now, not as it did when the connection came.
    std::thread sender([&] { Send(first, "late"); });
    const std::string late = Receive(accepted);
    if (Keeps(Documented::kDeferredConnectionIsReady)) {
        EXPECT_EQ(late, "late");
    }
    sender.join();

    const SOCKET second = Stream();
    ASSERT_EQ(Connect(second, name), 0);
    condition.answer = CF_REJECT;
    EXPECT_EQ(accept(), INVALID_SOCKET);
    EXPECT_EQ(Error, WSAECONNREFUSED);
    const std::string told = Receive(second);
    if (Keeps(Documented::kResetIsToldLate)) {
        EXPECT_EQ(told, "error 10054");
    }
}

TEST_F(StreamTest, PortIsFreeAgainWhenOnlyClosedConnectionsUseIt) {
    sockaddr_in name;
    SOCKET listener = Listener(&name);
    const SOCKET client = Stream();
    ASSERT_EQ(Connect(client, name), 0);
    const SOCKET server = Accept(listener);
    const auto* raw = reinterpret_cast<const sockaddr*>(&name);
    const SOCKET other = Stream();
    EXPECT_EQ(CALL(Bind, other, raw, sizeof(name)), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEADDRINUSE);
    Close(server);  // the active end, whose address the kernel keeps for a while
    EXPECT_EQ(Receive(client), "");
    Close(client);
    Close(listener);
    EXPECT_EQ(CALL(Bind, other, raw, sizeof(name)), 0) << Error;
    EXPECT_EQ(CALL(Bind, other, raw, sizeof(name)), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEINVAL);
    const SOCKET third = Stream();
    EXPECT_EQ(CALL(Bind, third, raw, sizeof(name)), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEADDRINUSE);
    EXPECT_EQ(CALL(Listen, other, 1), 0) << Error;
    EXPECT_EQ(CALL(Bind, Stream(), raw, sizeof(name)), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEADDRINUSE);
}

TEST_F(StreamTest, APortWithFadingConnectionsIsGivenToOneAlone) {
    sockaddr_in name;
    const SOCKET listener = Listener(&name);
    const SOCKET client = Stream();
    ASSERT_EQ(Connect(client, name), 0);
    Close(Accept(listener));
    EXPECT_EQ(Receive(client), "");
    Close(client);
    Close(listener);
    for (int round = 0; round < 60; ++round) {
        constexpr int kThreads = 4;
        std::atomic<int> ready{0};
        std::atomic<int> bound{0};
        std::atomic<int> listening{0};
        std::vector<std::thread> threads;
        for (int index = 0; index < kThreads; ++index) {
            threads.emplace_back([&] {
                const SOCKET s = Stream();
                ++ready;
                while (ready < kThreads) {
                }
                if (CALL(Bind, s, reinterpret_cast<const sockaddr*>(&name), sizeof(name)) == 0) {
                    ++bound;
                    if (CALL(Listen, s, 1) == 0) ++listening;
                }
                ++ready;
                while (ready < 2 * kThreads)
                    std::this_thread::yield();
                Close(s);
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        ASSERT_EQ(bound, 1) << "round " << round;
        ASSERT_EQ(listening, 1) << "round " << round;
    }
}

TEST_F(StreamTest, OperationsAreFaultPoints) {
    SOCKET client, server;
    Connect(&client, &server);
    {
        platform::ScopedFault fault({"lower WSPSend", 1, platform::FaultKind::kError, WSAENOBUFS, false});
        EXPECT_EQ(Send(client, "x"), SOCKET_ERROR);
        EXPECT_EQ(Error, WSAENOBUFS);
        EXPECT_EQ(Send(client, "y"), 1);
    }
    {
        platform::ScopedFault fault({"lower WSPSend", 1, platform::FaultKind::kShortCount, 2, false});
        EXPECT_EQ(Send(client, "abcd"), 2);
    }
    EXPECT_EQ(Receive(server), "yab");
}

}  // namespace
