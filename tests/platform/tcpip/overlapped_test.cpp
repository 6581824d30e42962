// Overlapped requests and network events: what completes, in which order, how, and exactly once.
#include <deque>
#include <set>
#include <thread>

#include "platform/testing/clock.h"
#include "platform/testing/machine.h"
#include "tests/platform/tcpip/base_provider.h"

namespace {

constexpr DWORD kPending = 0x103;
constexpr DWORD kAddressRoom = 144;

class OverlappedTest : public BaseProvider {
  protected:
    void SetUp() override {
        BaseProvider::SetUp();
        port_ = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    }
    void TearDown() override {
        CloseHandle(port_);
        BaseProvider::TearDown();
    }

    void Associate(SOCKET s) {
        EXPECT_EQ(CreateIoCompletionPort(reinterpret_cast<HANDLE>(s), port_, s, 0), port_);
    }

    /// The error of starting a receive; 0 when it completed at once.
    int StartReceive(SOCKET s, char* data, ULONG size, OVERLAPPED* overlapped, DWORD startFlags = 0,
                     LPWSAOVERLAPPED_COMPLETION_ROUTINE routine = nullptr) {
        WSABUF buffer = {size, data};
        DWORD flags = startFlags;
        const int result = CALL(Recv, s, &buffer, 1, nullptr, &flags, overlapped, routine, nullptr);
        return result == 0 ? 0 : Error;
    }

    int StartSend(SOCKET s, const char* data, ULONG size, OVERLAPPED* overlapped, DWORD* sent = nullptr) {
        WSABUF buffer = {size, const_cast<char*>(data)};
        const int result = CALL(Send, s, &buffer, 1, sent, 0, overlapped, nullptr, nullptr);
        return result == 0 ? 0 : Error;
    }

    /// The error of a request, 0 for success; `*bytes` is set.
    int ResultOf(SOCKET s, OVERLAPPED* overlapped, DWORD* bytes, bool wait = false, DWORD* flags = nullptr) {
        DWORD ignored = 0;
        if (flags == nullptr) flags = &ignored;
        return CALL(GetOverlappedResult, s, overlapped, bytes, wait ? TRUE : FALSE, flags) ? 0 : Error;
    }

    void ExpectNoPacket() {
        OVERLAPPED* overlapped = nullptr;
        DWORD error = 0;
        NextPacket(port_, &overlapped, &error, 0);
        EXPECT_EQ(overlapped, nullptr);
        EXPECT_EQ(error, static_cast<DWORD>(WAIT_TIMEOUT));
    }

    /// Waits for the packet of exactly this record.
    DWORD ExpectPacket(OVERLAPPED* expected, DWORD expectedError = 0) {
        OVERLAPPED* overlapped = nullptr;
        DWORD error = 0;
        const DWORD bytes = NextPacket(port_, &overlapped, &error);
        EXPECT_EQ(overlapped, expected);
        EXPECT_EQ(error, expectedError);
        return bytes;
    }

    HANDLE port_ = nullptr;
};

TEST_F(OverlappedTest, EveryRequestGivesOnePacketInOrder) {
    SOCKET client, server;
    Connect(&client, &server);
    Associate(server);
    Associate(client);
    EXPECT_EQ(CreateIoCompletionPort(reinterpret_cast<HANDLE>(server), port_, 0, 0), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    char data[3][4] = {};
    OVERLAPPED receives[3] = {};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(StartReceive(server, data[i], 2, &receives[i]), WSA_IO_PENDING);
        EXPECT_EQ(receives[i].Internal, kPending);
    }
    DWORD bytes = 7;
    EXPECT_EQ(ResultOf(server, &receives[0], &bytes), WSA_IO_INCOMPLETE);
    OVERLAPPED send = {};
    DWORD sent = 0;
    EXPECT_EQ(StartSend(client, "abcdef", 6, &send, &sent), 0);
    EXPECT_EQ(sent, 6u);
    bool sendSeen = false;
    for (int received = 0; received < 3;) {
        OVERLAPPED* overlapped = nullptr;
        DWORD error = 0;
        const DWORD count = NextPacket(port_, &overlapped, &error);
        ASSERT_EQ(error, 0u);
        if (overlapped == &send) {
            EXPECT_FALSE(sendSeen);
            sendSeen = true;
            EXPECT_EQ(count, 6u);
            continue;
        }
        EXPECT_EQ(overlapped, &receives[received]);
        EXPECT_EQ(count, 2u);
        EXPECT_EQ(std::string(data[received], 2), std::string("abcdef").substr(received * 2, 2));
        ++received;
    }
    if (!sendSeen) {
        EXPECT_EQ(ExpectPacket(&send), 6u);
    }
    // Also when the data was already there.
    ASSERT_EQ(Send(client, "gh"), 2);
    ASSERT_TRUE(WaitFor(server, 'r'));
    EXPECT_EQ(StartReceive(server, data[0], 4, &receives[0]), 0);
    EXPECT_EQ(ExpectPacket(&receives[0]), 2u);
    EXPECT_EQ(ResultOf(server, &receives[0], &bytes), 0);
    EXPECT_EQ(bytes, 2u);
    // The end of the stream is a packet of zero bytes.
    EXPECT_EQ(StartReceive(server, data[0], 4, &receives[0]), WSA_IO_PENDING);
    EXPECT_EQ(CALL(Shutdown, client, SD_SEND), 0);
    EXPECT_EQ(ExpectPacket(&receives[0]), 0u);
    ExpectNoPacket();
}

TEST_F(OverlappedTest, EventIsSetAndItsLowBitKeepsThePacketBack) {
    SOCKET client, server;
    Connect(&client, &server);
    Associate(server);
    const HANDLE event = CreateEventA(nullptr, TRUE, TRUE, nullptr);
    char data[8];
    OVERLAPPED overlapped = {};
    overlapped.hEvent = reinterpret_cast<HANDLE>(reinterpret_cast<ULONG_PTR>(event) | 1);
    EXPECT_EQ(StartReceive(server, data, 8, &overlapped), WSA_IO_PENDING);
    EXPECT_EQ(WaitForSingleObject(event, 0), static_cast<DWORD>(WAIT_TIMEOUT));
    Send(client, "x");
    EXPECT_EQ(WaitForSingleObject(event, 10000), WAIT_OBJECT_0);
    DWORD bytes = 0;
    EXPECT_EQ(ResultOf(server, &overlapped, &bytes, true), 0);
    EXPECT_EQ(bytes, 1u);
    ExpectNoPacket();
    overlapped.hEvent = event;
    EXPECT_EQ(StartReceive(server, data, 8, &overlapped), WSA_IO_PENDING);
    Send(client, "yz");
    EXPECT_EQ(ExpectPacket(&overlapped), 2u);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    // Without any event the wait is on the request itself.
    overlapped.hEvent = nullptr;
    EXPECT_EQ(StartReceive(server, data, 8, &overlapped), WSA_IO_PENDING);
    std::thread sender([&] {
        int error = 0;
        WSABUF buffer = {3, const_cast<char*>("abc")};
        DWORD sent = 0;
        Table.lpWSPSend(client, &buffer, 1, &sent, 0, nullptr, nullptr, nullptr, &error);
    });
    EXPECT_EQ(ResultOf(server, &overlapped, &bytes, true), 0);
    EXPECT_EQ(bytes, 3u);
    sender.join();
    ExpectPacket(&overlapped);
    CloseHandle(event);
}

struct RoutineCall {
    int count = 0;
    DWORD thread = 0, error = 0, bytes = 0, flags = 0;
};
RoutineCall LastRoutine;

void CALLBACK Routine(DWORD error, DWORD bytes, LPWSAOVERLAPPED, DWORD flags) {
    LastRoutine = {LastRoutine.count + 1, GetCurrentThreadId(), error, bytes, flags};
}

TEST_F(OverlappedTest, CompletionRoutineRunsInAnAlertableWaitOnly) {
    LastRoutine = {};
    SOCKET client, server;
    Connect(&client, &server);
    char data[8];
    OVERLAPPED overlapped = {};
    EXPECT_EQ(StartReceive(server, data, 8, &overlapped, 0, Routine), WSA_IO_PENDING);
    Send(client, "x");
    DWORD bytes = 0;
    EXPECT_EQ(ResultOf(server, &overlapped, &bytes, true), 0);
    EXPECT_EQ(LastRoutine.count, 0);
    EXPECT_EQ(SleepEx(10000, TRUE), static_cast<DWORD>(WAIT_IO_COMPLETION));
    EXPECT_EQ(LastRoutine.count, 1);
    EXPECT_EQ(LastRoutine.thread, GetCurrentThreadId());
    EXPECT_EQ(LastRoutine.bytes, 1u);
    // Completed at once, it waits for the alertable wait all the same.
    Send(client, "yz");
    ASSERT_TRUE(WaitFor(server, 'r'));
    EXPECT_EQ(StartReceive(server, data, 8, &overlapped, 0, Routine), 0);
    EXPECT_EQ(LastRoutine.count, 1);
    EXPECT_EQ(SleepEx(0, TRUE), static_cast<DWORD>(WAIT_IO_COMPLETION));
    EXPECT_EQ(LastRoutine.count, 2);
    // A cancelled request tells its routine, too.
    EXPECT_EQ(StartReceive(server, data, 8, &overlapped, 0, Routine), WSA_IO_PENDING);
    Close(server);
    EXPECT_EQ(SleepEx(10000, TRUE), static_cast<DWORD>(WAIT_IO_COMPLETION));
    EXPECT_EQ(LastRoutine.count, 3);
    EXPECT_EQ(LastRoutine.error, static_cast<DWORD>(WSA_OPERATION_ABORTED));
}

TEST_F(OverlappedTest, CloseCancelsWhatIsPending) {
    SOCKET client, server;
    Connect(&client, &server);
    Associate(server);
    char data[8];
    OVERLAPPED receives[2] = {};
    for (OVERLAPPED& receive : receives)
        EXPECT_EQ(StartReceive(server, data, 8, &receive), WSA_IO_PENDING);
    Close(server);
    std::set<OVERLAPPED*> told;
    for (OVERLAPPED& receive : receives) {
        OVERLAPPED* overlapped = nullptr;
        DWORD error = 0;
        EXPECT_EQ(NextPacket(port_, &overlapped, &error), 0u);
        told.insert(overlapped);
        EXPECT_EQ(error, static_cast<DWORD>(ERROR_OPERATION_ABORTED));
        DWORD bytes = 1;
        EXPECT_EQ(ResultOf(server, &receive, &bytes), WSAENOTSOCK);
    }
    EXPECT_EQ(told, (std::set<OVERLAPPED*>{&receives[0], &receives[1]}));
    ExpectNoPacket();
}

TEST_F(OverlappedTest, ResetEndsAPendingReceiveAndLaterCallsFailAtOnce) {
    SOCKET client, server;
    Connect(&client, &server);
    Associate(client);
    char data[8];
    OVERLAPPED overlapped = {};
    EXPECT_EQ(StartReceive(client, data, 8, &overlapped), WSA_IO_PENDING);
    const linger abort = {1, 0};
    CALL(SetSockOpt, server, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&abort), sizeof(abort));
    Close(server);
    ExpectPacket(&overlapped, ERROR_NETNAME_DELETED);
    DWORD bytes = 0;
    EXPECT_EQ(ResultOf(client, &overlapped, &bytes), WSAECONNRESET);
    EXPECT_EQ(StartSend(client, "x", 1, &overlapped), WSAECONNRESET);
    EXPECT_EQ(StartReceive(Stream(), data, 8, &overlapped), WSAENOTCONN);
    ExpectNoPacket();
}

TEST_F(OverlappedTest, LargeSendCompletesWhenAllOfItHasGone) {
    SOCKET client, server;
    Connect(&client, &server);
    Associate(client);
    SetNumber(client, SOL_SOCKET, SO_SNDBUF, 65536);
    const std::string first(4 << 20, 'a'), second(100000, 'b');
    OVERLAPPED sends[2] = {};
    EXPECT_EQ(StartSend(client, first.data(), static_cast<ULONG>(first.size()), &sends[0]), WSA_IO_PENDING);
    EXPECT_EQ(StartSend(client, second.data(), static_cast<ULONG>(second.size()), &sends[1]), WSA_IO_PENDING);
    ExpectNoPacket();
    std::string all;
    while (all.size() < first.size() + second.size()) {
        const std::string piece = Receive(server, 1 << 20);
        ASSERT_FALSE(piece.empty());
        all += piece;
    }
    EXPECT_EQ(all, first + second);
    EXPECT_EQ(ExpectPacket(&sends[0]), first.size());
    EXPECT_EQ(ExpectPacket(&sends[1]), second.size());
}

TEST_F(OverlappedTest, DatagramsThatDoNotFitCompleteWithAWarning) {
    const SOCKET a = Bound(Datagram()), b = Bound(Datagram());
    ASSERT_EQ(Connect(a, NameOf(b)), 0);
    Associate(b);
    char data[8];
    sockaddr_in from = {};
    int length = sizeof(from);
    for (const bool early : {true, false}) {
        if (early) {
            ASSERT_EQ(Send(a, "too long"), 8);
            ASSERT_TRUE(WaitFor(b, 'r'));
        }
        OVERLAPPED overlapped = {};
        WSABUF buffer = {3, data};
        DWORD flags = 0;
        EXPECT_EQ(CALL(RecvFrom, b, &buffer, 1, nullptr, &flags, reinterpret_cast<sockaddr*>(&from), &length,
                       &overlapped, nullptr, nullptr),
                  SOCKET_ERROR);
        if (Keeps(Documented::kPartialDatagramIsMarked)) {
            EXPECT_EQ(Error, WSA_IO_PENDING);
        }
        if (!early) {
            ASSERT_EQ(Send(a, "too long"), 8);
        }
        EXPECT_EQ(ExpectPacket(&overlapped, ERROR_MORE_DATA), 3u);
        DWORD bytes = 0;
        EXPECT_EQ(ResultOf(b, &overlapped, &bytes, false, &flags), WSAEMSGSIZE);
        if (Keeps(Documented::kPartialDatagramIsMarked)) {
            EXPECT_EQ(flags, static_cast<DWORD>(MSG_PARTIAL));
        }
        EXPECT_EQ(Text(from), Text(NameOf(a)));
    }
    // The message form tells the same in its flags.
    const auto receiveMessage = Extension<LPFN_WSARECVMSG>(b, WSAID_WSARECVMSG);
    ASSERT_EQ(Send(a, "abcd"), 4);
    ASSERT_TRUE(WaitFor(b, 'r'));
    WSABUF buffer = {8, data};
    WSAMSG message = {reinterpret_cast<sockaddr*>(&from), sizeof(from), &buffer, 1, {0, nullptr}, 0};
    DWORD received = 0;
    ASSERT_EQ(receiveMessage(b, &message, &received, nullptr, nullptr), 0);
    EXPECT_EQ(received, 4u);
    EXPECT_EQ(message.dwFlags, 0u);
}

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
    Close(accepting[0]);
    ExpectPacket(&overlapped[0], ERROR_OPERATION_ABORTED);
    Close(listener);
    ExpectPacket(&overlapped[1], ERROR_OPERATION_ABORTED);
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

TEST_F(OverlappedTest, NetworkEventsComeOnceUntilReenabled) {
    sockaddr_in name;
    const SOCKET listener = Listener(&name);
    const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    ASSERT_EQ(CALL(EventSelect, listener, event, FD_ACCEPT | FD_READ | FD_CLOSE), 0);
    const SOCKET client = Stream();
    const HANDLE clientEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    ASSERT_EQ(CALL(EventSelect, client, clientEvent, FD_CONNECT | FD_WRITE), 0);
    ULONG off = 0;
    EXPECT_EQ(SetNonBlocking(client, off), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEINVAL);
    EXPECT_EQ(Connect(client, name), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEWOULDBLOCK);
    const auto events = [&](SOCKET s, HANDLE handle) {
        EXPECT_EQ(WaitForSingleObject(handle, 10000), WAIT_OBJECT_0);
        WSANETWORKEVENTS found = {};
        EXPECT_EQ(CALL(EnumNetworkEvents, s, handle, &found), 0);
        return found.lNetworkEvents;
    };
    LONG seen = 0;
    while (seen != (FD_CONNECT | FD_WRITE))
        seen |= events(client, clientEvent);
    EXPECT_EQ(events(listener, event), FD_ACCEPT);
    const SOCKET server = Accept(listener);
    ASSERT_NE(server, INVALID_SOCKET);
    EXPECT_EQ(Accept(listener), INVALID_SOCKET);
    EXPECT_EQ(Error, WSAEWOULDBLOCK);
    // The accepted socket has the listener's events.
    Send(client, "ab");
    EXPECT_EQ(events(server, event), FD_READ);
    Send(client, "c");
    EXPECT_EQ(WaitForSingleObject(event, 0), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_EQ(Receive(server, 1), "a");
    EXPECT_EQ(events(server, event), FD_READ) << "data is left";
    // Room to write is told again after a send that found none.
    std::string much(1 << 20, 'x');
    while (Send(client, much) > 0) {
    }
    EXPECT_EQ(Error, WSAEWOULDBLOCK);
    if (Keeps(Documented::kRoomIsToldWhenItComes)) {
        EXPECT_EQ(WaitForSingleObject(clientEvent, 0), static_cast<DWORD>(WAIT_TIMEOUT));
    }
    seen = 0;
    while (seen == 0) {
        if (Receive(server, 1 << 20) == "error 10035") std::this_thread::yield();
        if (WaitForSingleObject(clientEvent, 0) == WAIT_OBJECT_0) seen = events(client, clientEvent);
    }
    EXPECT_EQ(seen, FD_WRITE);
    Close(client);
    seen = 0;
    while ((seen & FD_CLOSE) == 0) {
        Receive(server, 1 << 20);
        if (WaitForSingleObject(event, 0) == WAIT_OBJECT_0) seen |= events(server, event);
    }
    const SOCKET refused = Stream();
    ASSERT_EQ(CALL(EventSelect, refused, clientEvent, FD_CONNECT), 0);
    EXPECT_EQ(Connect(refused, RefusingName()), SOCKET_ERROR);
    EXPECT_EQ(WaitForSingleObject(clientEvent, 10000), WAIT_OBJECT_0);
    WSANETWORKEVENTS found = {};
    EXPECT_EQ(CALL(EnumNetworkEvents, refused, nullptr, &found), 0);
    EXPECT_EQ(found.lNetworkEvents, FD_CONNECT);
    EXPECT_EQ(found.iErrorCode[FD_CONNECT_BIT], WSAECONNREFUSED);
    CloseHandle(event);
    CloseHandle(clientEvent);
}

struct SmallRequest {
    OVERLAPPED overlapped = {};  // first: a packet names the request by it
    char byte = 'x';
    bool accepted = false;
    int packets = 0;
};

TEST_F(OverlappedTest, CompletionsAreExactlyOnceWhileOthersCloseTheSockets) {
    // Workers start receives and sends on connected pairs while another thread closes the pairs in the
    // middle: every request that was accepted completes once. All sockets are made before, so that no handle
    // is given out twice.
    constexpr int kWorkers = 3, kRounds = 40, kRequests = 6;
    int failed = 0;
    SOCKET pairs[kWorkers][kRounds][2];
    std::deque<SmallRequest> requests[kWorkers];
    for (auto& worker : pairs) {
        for (auto& ends : worker) {
            Connect(&ends[0], &ends[1]);
            for (const SOCKET s : ends)
                Associate(s);
        }
    }
    std::thread collector([&] {
        for (;;) {
            DWORD bytes = 0;
            ULONG_PTR key = 0;
            OVERLAPPED* overlapped = nullptr;
            const BOOL good = GetQueuedCompletionStatus(port_, &bytes, &key, &overlapped, INFINITE);
            if (overlapped == nullptr) return;
            failed += good ? 0 : 1;
            ++reinterpret_cast<SmallRequest*>(overlapped)->packets;
        }
    });
    const auto work = [&](SOCKET(*mine)[2], std::deque<SmallRequest>* made) {
        for (int round = 0; round < kRounds; ++round) {
            const SOCKET* ends = mine[round];
            std::thread closer([&, round] {
                int ignored = 0;
                Table.lpWSPCloseSocket(ends[round & 1], &ignored);
            });
            for (int i = 0; i < kRequests; ++i) {
                SmallRequest& request = made->emplace_back();
                WSABUF buffer = {1, &request.byte};
                DWORD flags = 0;
                int requestError = 0;
                const SOCKET s = ends[i / 2 & 1];
                const int result = i % 2 == 0
                                       ? Table.lpWSPRecv(s, &buffer, 1, nullptr, &flags, &request.overlapped,
                                                         nullptr, nullptr, &requestError)
                                       : Table.lpWSPSend(s, &buffer, 1, nullptr, 0, &request.overlapped,
                                                         nullptr, nullptr, &requestError);
                request.accepted = result == 0 || requestError == WSA_IO_PENDING;
            }
            closer.join();
            int ignored = 0;
            Table.lpWSPCloseSocket(ends[(round & 1) ^ 1], &ignored);
        }
    };
    std::vector<std::thread> workers;
    for (int i = 0; i < kWorkers; ++i)
        workers.emplace_back(work, pairs[i], &requests[i]);
    for (std::thread& worker : workers)
        worker.join();
    // Every socket is closed, so every completion is queued; the stop packet comes behind them.
    PostQueuedCompletionStatus(port_, 0, 0, nullptr);
    collector.join();
    for (const auto& made : requests) {
        for (const SmallRequest& request : made) {
            if (!request.accepted && !Keeps(Documented::kRefusedCallsQueueNoPacket)) continue;
            ASSERT_EQ(request.packets, request.accepted ? 1 : 0);
        }
    }
    EXPECT_GT(failed, 0);
}

}  // namespace
