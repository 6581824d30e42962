// Overlapped requests and network events: what completes, in which order, how, and exactly once.
#include <deque>
#include <set>
#include <thread>

#include "tests/platform/tcpip/overlapped_base_provider.h"

namespace {

constexpr DWORD kPending = 0x103;

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
    std::thread sender([&] { Send(client, "abc"); });
    EXPECT_EQ(ResultOf(server, &overlapped, &bytes, true), 0);
    EXPECT_EQ(bytes, 3u);
    sender.join();
    ExpectPacket(&overlapped);
    CloseHandle(event);
}

TEST_F(OverlappedTest, SuccessesInsideTheCallCanBeKeptFromThePort) {
    SOCKET client, server;
    Connect(&client, &server);
    Associate(server);
    const auto file = reinterpret_cast<HANDLE>(server);
    if (Keeps(Documented::kUnknownModesAreRefused)) {
        EXPECT_FALSE(SetFileCompletionNotificationModes(file, 0x80));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    }
    ASSERT_TRUE(SetFileCompletionNotificationModes(file, FILE_SKIP_COMPLETION_PORT_ON_SUCCESS));
    OVERLAPPED send = {};
    send.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    ASSERT_EQ(StartSend(server, "abc", 3, &send), 0);
    EXPECT_EQ(WaitForSingleObject(send.hEvent, 0), WAIT_OBJECT_0) << "whoever waits for it is told";
    EXPECT_EQ(send.InternalHigh, 3u);
    CloseHandle(send.hEvent);

    char data[8];
    OVERLAPPED receive = {};
    EXPECT_EQ(StartReceive(server, data, 8, &receive), WSA_IO_PENDING);
    EXPECT_EQ(Send(client, "xy"), 2);
    EXPECT_EQ(ExpectPacket(&receive), 2u) << "the send before it has queued none";
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
    Abort(server);
    ExpectPacket(&overlapped, ERROR_NETNAME_DELETED);
    DWORD bytes = 0;
    EXPECT_EQ(ResultOf(client, &overlapped, &bytes), WSAECONNRESET);
    EXPECT_EQ(StartSend(client, "x", 1, &overlapped), WSAECONNRESET);
    EXPECT_EQ(StartReceive(Stream(), data, 8, &overlapped), WSAENOTCONN);
    ExpectNoPacket();
}

TEST_F(OverlappedTest, LargeSendCompletesWhenAllOfItHasGone) {
    SOCKET client, server;
    const std::string first(4 << 20, 'a'), second(100000, 'b');
    OVERLAPPED sends[2] = {};
    ConnectAndStartSend(&client, &server, first, &sends[0]);
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

TEST_F(OverlappedTest, ShutdownComesBehindWhatIsBeingSent) {
    SOCKET client, server;
    const std::string data(4 << 20, 'a');
    OVERLAPPED sending = {};
    ConnectAndStartSend(&client, &server, data, &sending);
    EXPECT_EQ(CALL(Shutdown, client, SD_SEND), 0);
    OVERLAPPED late = {};
    EXPECT_EQ(StartSend(client, "x", 1, &late), WSAESHUTDOWN);
    std::size_t received = 0;
    for (std::string piece = Receive(server, 1 << 20); !piece.empty(); piece = Receive(server, 1 << 20)) {
        ASSERT_EQ(piece.find_first_not_of('a'), std::string::npos) << piece.substr(0, 20);
        received += piece.size();
    }
    EXPECT_EQ(received, data.size());
    EXPECT_EQ(ExpectPacket(&sending), data.size());
}

TEST_F(OverlappedTest, AResetEndsTheSendThatAShutdownWaitsFor) {
    SOCKET client, server;
    const std::string data(4 << 20, 'a');
    char byte;
    OVERLAPPED receiving = {}, sending = {};
    ConnectAndStartSend(&client, &server, data, &sending);
    EXPECT_EQ(StartReceive(client, &byte, 1, &receiving), WSA_IO_PENDING);
    EXPECT_EQ(CALL(Shutdown, client, SD_SEND), 0);
    Abort(server);
    for (int i = 0; i < 2; ++i) {
        OVERLAPPED* overlapped = nullptr;
        DWORD error = 0;
        NextPacket(port_, &overlapped, &error);
        EXPECT_EQ(error, static_cast<DWORD>(ERROR_NETNAME_DELETED)) << (overlapped == &sending);
    }
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
            std::thread closer([&, round] { CALL(CloseSocket, ends[round & 1]); });
            for (int i = 0; i < kRequests; ++i) {
                SmallRequest& request = made->emplace_back();
                const SOCKET s = ends[i / 2 & 1];
                const int error = i % 2 == 0 ? StartReceive(s, &request.byte, 1, &request.overlapped)
                                             : StartSend(s, &request.byte, 1, &request.overlapped);
                request.accepted = error == 0 || error == WSA_IO_PENDING;
            }
            closer.join();
            CALL(CloseSocket, ends[(round & 1) ^ 1]);
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
