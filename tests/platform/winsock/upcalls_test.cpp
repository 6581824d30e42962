// What Winsock does for providers: handles with a value of their own, the end of overlapped requests,
// notifications.
#include <winsock2.h>

#include <ws2spi.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tests/platform/winsock/host_fixture.h"
#include "tests/support/callback.h"

namespace {

class UpcallsTest : public HostFixture {
  protected:
    void SetUp() override {
        HostFixture::SetUp();
        socket_ = TcpSocket();
        ASSERT_NE(socket_, INVALID_SOCKET);
        upcalls_ = provider_->Upcalls();
    }

    int Complete(OVERLAPPED* overlapped, DWORD error, DWORD bytes) {
        return WPUCompleteOverlappedRequest(socket_, overlapped, error, bytes, &error_);
    }

    SOCKET socket_ = INVALID_SOCKET;
    WSPUPCALLTABLE upcalls_{};
    int error_ = 0;
};

TEST_F(UpcallsTest, AHandleKeepsItsValueUntilItIsClosed) {
    const SOCKET a = upcalls_.lpWPUCreateSocketHandle(winsock_host::kTcpEntry, 111, &error_);
    const SOCKET b = upcalls_.lpWPUCreateSocketHandle(winsock_host::kUdpEntry, 222, &error_);
    ASSERT_NE(a, INVALID_SOCKET);
    ASSERT_NE(b, INVALID_SOCKET);
    DWORD_PTR context = 0;
    EXPECT_EQ(upcalls_.lpWPUQuerySocketHandleContext(b, &context, &error_), 0);
    EXPECT_EQ(context, 222u);
    EXPECT_EQ(upcalls_.lpWPUQuerySocketHandleContext(a, &context, &error_), 0);
    EXPECT_EQ(context, 111u);
    EXPECT_EQ(upcalls_.lpWPUCloseSocketHandle(a, &error_), 0);
    EXPECT_EQ(upcalls_.lpWPUQuerySocketHandleContext(a, &context, &error_), SOCKET_ERROR);
    EXPECT_EQ(error_, WSAENOTSOCK);
    error_ = 0;
    EXPECT_EQ(upcalls_.lpWPUCloseSocketHandle(a, &error_), SOCKET_ERROR);
    EXPECT_EQ(error_, WSAENOTSOCK);
    EXPECT_EQ(upcalls_.lpWPUCreateSocketHandle(4711, 0, &error_), INVALID_SOCKET);
    EXPECT_EQ(error_, WSAEINVAL);
    EXPECT_EQ(provider_->Startups(), 1) << "a handle of another entry starts nothing";
    EXPECT_EQ(upcalls_.lpWPUCloseSocketHandle(b, &error_), 0);
}

TEST_F(UpcallsTest, ASystemHandleIsASocketOfItsProviderUntilThatClosesIt) {
    const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    const SOCKET s = reinterpret_cast<SOCKET>(event);
    EXPECT_EQ(upcalls_.lpWPUModifyIFSHandle(winsock_host::kTcpEntry, s, &error_), s);
    EXPECT_EQ(send(s, "x", 1, 0), 1);
    EXPECT_EQ(provider_->Calls(ProviderOperation::kSend).at(0).socket, s);
    DWORD_PTR context = 0;
    EXPECT_EQ(upcalls_.lpWPUQuerySocketHandleContext(s, &context, &error_), SOCKET_ERROR);
    EXPECT_EQ(upcalls_.lpWPUCloseSocketHandle(s, &error_), SOCKET_ERROR);
    EXPECT_EQ(error_, WSAENOTSOCK);

    ProviderReply lingers;
    lingers.error = WSAEWOULDBLOCK;
    provider_->ReplyOnce(ProviderOperation::kCloseSocket, lingers);
    EXPECT_EQ(closesocket(s), SOCKET_ERROR);
    EXPECT_EQ(send(s, "x", 1, 0), 1) << "still open";
    ProviderReply gone;
    gone.error = WSAENOTSOCK;
    provider_->ReplyOnce(ProviderOperation::kCloseSocket, gone);
    EXPECT_EQ(closesocket(s), SOCKET_ERROR);
    WSASetLastError(0);
    EXPECT_EQ(send(s, "x", 1, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
    CloseHandle(event);
}

TEST_F(UpcallsTest, ACompletedRequestArrivesAtThePortOfItsHandle) {
    const HANDLE port = CreateIoCompletionPort(reinterpret_cast<HANDLE>(socket_), nullptr, 77, 0);
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(CreateIoCompletionPort(reinterpret_cast<HANDLE>(socket_), port, 78, 0), nullptr)
        << "one association for life";
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    const struct {
        DWORD error;
        DWORD bytes;
        BOOL delivered;
        DWORD systemError;
    } cases[] = {{0, 5, TRUE, 0},
                 {WSAECONNRESET, 0, FALSE, ERROR_NETNAME_DELETED},
                 {WSA_OPERATION_ABORTED, 3, FALSE, ERROR_OPERATION_ABORTED},
                 {WSAECONNREFUSED, 0, FALSE, ERROR_CONNECTION_REFUSED},
                 {WSAENOTCONN, 0, FALSE, ERROR_GEN_FAILURE}};
    for (const auto& c : cases) {
        OVERLAPPED overlapped{};
        overlapped.Internal = WSS_OPERATION_IN_PROGRESS;
        EXPECT_EQ(Complete(&overlapped, c.error, c.bytes), 0);
        DWORD bytes = 0xFFFF;
        ULONG_PTR key = 0;
        LPOVERLAPPED got = nullptr;
        EXPECT_EQ(GetQueuedCompletionStatus(port, &bytes, &key, &got, 0), c.delivered) << c.error;
        if (c.systemError != 0) {
            EXPECT_EQ(GetLastError(), c.systemError);
        }
        EXPECT_EQ(got, &overlapped);
        EXPECT_EQ(bytes, c.bytes);
        EXPECT_EQ(key, 77u);
        EXPECT_EQ(overlapped.InternalHigh, c.bytes);
        EXPECT_EQ(overlapped.Internal == 0, c.error == 0);
        EXPECT_NE(overlapped.Internal, static_cast<ULONG_PTR>(WSS_OPERATION_IN_PROGRESS));
    }
    CloseHandle(port);
}

TEST_F(UpcallsTest, TheLowBitOfTheEventKeepsThePacketAway) {
    const HANDLE port = CreateIoCompletionPort(reinterpret_cast<HANDLE>(socket_), nullptr, 0, 0);
    const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    for (const bool quiet : {true, false}) {
        ResetEvent(event);
        OVERLAPPED overlapped{};
        overlapped.hEvent = reinterpret_cast<HANDLE>(reinterpret_cast<ULONG_PTR>(event) | (quiet ? 1 : 0));
        EXPECT_EQ(Complete(&overlapped, 0, 1), 0);
        EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
        DWORD bytes = 0;
        ULONG_PTR key = 0;
        LPOVERLAPPED got = nullptr;
        EXPECT_EQ(GetQueuedCompletionStatus(port, &bytes, &key, &got, 0), quiet ? FALSE : TRUE);
    }
    CloseHandle(event);
    CloseHandle(port);
}

TEST_F(UpcallsTest, OnlyRequestsOnWinsocksHandlesAreCompleted) {
    OVERLAPPED overlapped{};
    overlapped.Internal = WSS_OPERATION_IN_PROGRESS;
    EXPECT_EQ(WPUCompleteOverlappedRequest(socket_ + 4000, &overlapped, 0, 1, &error_), SOCKET_ERROR);
    EXPECT_EQ(error_, WSAEINVAL);
    EXPECT_EQ(overlapped.Internal, static_cast<ULONG_PTR>(WSS_OPERATION_IN_PROGRESS));
    EXPECT_EQ(Complete(nullptr, 0, 1), SOCKET_ERROR);
    EXPECT_EQ(error_, WSAEFAULT);
}

TEST_F(UpcallsTest, AnApcRunsOnTheThreadThatWasOpened) {
    WSATHREADID thread{};
    ASSERT_EQ(upcalls_.lpWPUOpenCurrentThread(&thread, &error_), 0);
    static DWORD_PTR got;
    got = 0;
    std::thread([&] {
        int error = 0;
        EXPECT_EQ(upcalls_.lpWPUQueueApc(&thread, Callback([](DWORD_PTR value) { got = value; }), 42, &error),
                  0);
    }).join();
    EXPECT_EQ(got, 0u) << "only an alertable wait runs it";
    EXPECT_EQ(SleepEx(0, TRUE), static_cast<DWORD>(WAIT_IO_COMPLETION));
    EXPECT_EQ(got, 42u);
    EXPECT_EQ(upcalls_.lpWPUCloseThread(&thread, &error_), 0);
    EXPECT_EQ(upcalls_.lpWPUQueueApc(nullptr, nullptr, 0, &error_), SOCKET_ERROR);
    EXPECT_EQ(error_, WSAEFAULT);
}

TEST_F(UpcallsTest, EventsAndSetsAndTheBlockingHook) {
    const WSAEVENT event = upcalls_.lpWPUCreateEvent(&error_);
    EXPECT_EQ(WaitForSingleObject(event, 0), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_TRUE(upcalls_.lpWPUSetEvent(event, &error_));
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0) << "reset by hand";
    EXPECT_TRUE(upcalls_.lpWPUResetEvent(event, &error_));
    EXPECT_EQ(WaitForSingleObject(event, 0), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_TRUE(upcalls_.lpWPUCloseEvent(event, &error_));
    EXPECT_FALSE(upcalls_.lpWPUSetEvent(event, &error_));
    EXPECT_EQ(error_, WSA_INVALID_HANDLE);

    fd_set set;
    FD_ZERO(&set);
    FD_SET(socket_, &set);
    FD_SET(socket_, &set);
    EXPECT_EQ(set.fd_count, 1u);
    EXPECT_TRUE(upcalls_.lpWPUFDIsSet(socket_, &set));
    EXPECT_FALSE(FD_ISSET(socket_ + 4, &set));

    LPBLOCKINGCALLBACK callback = Callback([](DWORD_PTR) { return BOOL{TRUE}; });
    DWORD_PTR context = 1;
    EXPECT_EQ(upcalls_.lpWPUQueryBlockingCallback(winsock_host::kTcpEntry, &callback, &context, &error_), 0);
    EXPECT_EQ(callback, nullptr);
}

// Threads make, ask about and close handles at once, and send on one that others close: no answer but the
// handle's own or WSAENOTSOCK.
TEST_F(UpcallsTest, HandlesComeAndGoWhileOthersUseThem) {
    std::atomic<SOCKET> shared{socket_};
    std::vector<std::thread> threads;
    for (DWORD_PTR t = 1; t <= 3; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 500; ++i) {
                int error = 0;
                const SOCKET s = upcalls_.lpWPUCreateSocketHandle(winsock_host::kTcpEntry, t, &error);
                DWORD_PTR context = 0;
                EXPECT_EQ(upcalls_.lpWPUQuerySocketHandleContext(s, &context, &error), 0);
                EXPECT_EQ(context, t);
                const SOCKET other = shared.exchange(s);
                if (send(other, "x", 1, 0) == SOCKET_ERROR) {
                    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
                }
                upcalls_.lpWPUCloseSocketHandle(other, &error);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(upcalls_.lpWPUCloseSocketHandle(shared, &error_), 0);
    EXPECT_EQ(platform::CountResources().layeredSockets, 0);
}

}  // namespace
