// Asynchronous select: which events a window is told, once each, and which calls let them come again.
#include <string>

#include "tests/platform/tcpip/base_provider.h"

namespace {

constexpr UINT kMessage = WM_APP + 3;

class AsyncSelectTest : public BaseProvider {
  protected:
    void SetUp() override {
        BaseProvider::SetUp();
        WNDCLASSA windowClass{};
        windowClass.lpfnWndProc = DefWindowProcA;
        windowClass.hInstance = GetModuleHandleA(nullptr);
        windowClass.lpszClassName = "asynchronous select";
        RegisterClassA(&windowClass);
        window_ = CreateWindowExA(0, windowClass.lpszClassName, "", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr,
                                  windowClass.hInstance, nullptr);
        ASSERT_NE(window_, nullptr) << GetLastError();
    }
    void TearDown() override {
        DestroyWindow(window_);
        BaseProvider::TearDown();
    }

    int Select(SOCKET s, LONG events) { return CALL(AsyncSelect, s, window_, kMessage, events); }

    /// The next event of the socket, which is the only one that has any.
    int Next(SOCKET s, int error = 0) {
        MSG message;
        if (GetMessageA(&message, window_, kMessage, kMessage) <= 0) return -1;
        EXPECT_EQ(message.wParam, s);
        EXPECT_EQ(WSAGETSELECTERROR(message.lParam), error);
        return WSAGETSELECTEVENT(message.lParam);
    }

    /// True when nothing has come. An event of another socket that is told afterwards shows that nothing
    /// will.
    bool IsQuiet() {
        const SOCKET marker = Datagram();
        EXPECT_EQ(Select(marker, FD_WRITE), 0);
        const bool quiet = Next(marker) == FD_WRITE;
        Close(marker);
        return quiet && !testing::Test::HasFailure();
    }

    HWND window_ = nullptr;
};

TEST_F(AsyncSelectTest, WhatIsAskedForIsChecked) {
    const SOCKET s = Datagram();
    if (Keeps(Documented::kAsyncSelectChecksItsWindow)) {
        EXPECT_EQ(CALL(AsyncSelect, s, nullptr, kMessage, FD_READ), SOCKET_ERROR);
        EXPECT_EQ(Error, WSAEINVAL);
    }
    EXPECT_EQ(Select(s + 0x4000, FD_READ), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAENOTSOCK);
    ASSERT_EQ(Select(s, FD_WRITE), 0);
    EXPECT_EQ(Next(s), FD_WRITE);
    EXPECT_EQ(SetNonBlocking(s, 0), SOCKET_ERROR) << "a socket with events does not block";
    EXPECT_EQ(Error, WSAEINVAL);
    ASSERT_EQ(Select(s, 0), 0);
    EXPECT_TRUE(IsQuiet());
    EXPECT_EQ(SetNonBlocking(s, 0), 0);
}

TEST_F(AsyncSelectTest, EachEventComesOnceUntilTheCallThatLetsItComeAgain) {
    sockaddr_in name;
    const SOCKET listener = Listener(&name);
    ASSERT_EQ(Select(listener, FD_ACCEPT), 0);
    const SOCKET first = Stream();
    ASSERT_EQ(Connect(first, name), 0);
    EXPECT_EQ(Next(listener), FD_ACCEPT);
    const SOCKET second = Stream();
    ASSERT_EQ(Connect(second, name), 0);
    EXPECT_TRUE(IsQuiet()) << "nobody has accepted";
    const SOCKET server = Accept(listener);
    ASSERT_NE(server, INVALID_SOCKET);
    EXPECT_EQ(Next(listener), FD_ACCEPT) << "another one waits";
    Close(Accept(listener));
    Close(second);
    Close(listener);

    ASSERT_EQ(Select(server, FD_READ | FD_CLOSE), 0);
    Send(first, "ab");
    EXPECT_EQ(Next(server), FD_READ);
    Send(first, "cd");
    EXPECT_TRUE(IsQuiet()) << "nobody has read";
    EXPECT_EQ(Receive(server, 1), "a");
    EXPECT_EQ(Next(server), FD_READ) << "some is left";
    EXPECT_EQ(Receive(server), "bcd");
    EXPECT_TRUE(IsQuiet());
    Send(first, "e");
    EXPECT_EQ(Next(server), FD_READ);
    Close(first);
    EXPECT_EQ(Receive(server), "e");
    EXPECT_EQ(Next(server), FD_CLOSE) << "after the data";
    EXPECT_EQ(Receive(server), "");
    EXPECT_TRUE(IsQuiet()) << "once";
}

TEST_F(AsyncSelectTest, RoomToWriteIsToldAfterTheConnectAndAfterASendThatFoundNone) {
    sockaddr_in name;
    const SOCKET listener = Listener(&name);
    const SOCKET client = Stream();
    ASSERT_EQ(Select(client, FD_CONNECT | FD_WRITE), 0);
    EXPECT_EQ(Connect(client, name), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEWOULDBLOCK);
    EXPECT_EQ(Next(client) | Next(client), FD_CONNECT | FD_WRITE);
    const SOCKET server = Accept(listener);
    EXPECT_EQ(Send(client, "x"), 1);
    EXPECT_TRUE(IsQuiet()) << "there was room";
    const std::string much(1 << 20, 'x');
    while (Send(client, much) > 0) {
    }
    ASSERT_EQ(Error, WSAEWOULDBLOCK);
    MSG message;
    ASSERT_EQ(SetNonBlocking(server, 1), 0);
    while (!PeekMessageA(&message, window_, kMessage, kMessage, PM_REMOVE))
        Receive(server, 1 << 20);
    EXPECT_EQ(message.lParam, WSAMAKESELECTREPLY(FD_WRITE, 0));

    const SOCKET refused = Stream();
    ASSERT_EQ(Select(refused, FD_CONNECT | FD_WRITE), 0);
    EXPECT_EQ(Connect(refused, RefusingName()), SOCKET_ERROR);
    EXPECT_EQ(Next(refused, WSAECONNREFUSED), FD_CONNECT);
}

TEST_F(AsyncSelectTest, TheLastRequestIsTheOneInForce) {
    SOCKET client, server;
    Connect(&client, &server);
    const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    ASSERT_EQ(Select(server, FD_READ), 0);
    ASSERT_EQ(CALL(EventSelect, server, event, FD_READ), 0);
    Send(client, "a");
    EXPECT_EQ(WaitForSingleObject(event, 10000), static_cast<DWORD>(WAIT_OBJECT_0));
    EXPECT_TRUE(IsQuiet()) << "the event object has taken the window's place";
    ASSERT_EQ(Select(server, FD_READ), 0);
    EXPECT_EQ(Next(server), FD_READ) << "what holds already is told at once";
    EXPECT_TRUE(ResetEvent(event));
    EXPECT_EQ(Receive(server), "a");
    Send(client, "b");
    EXPECT_EQ(Next(server), FD_READ);
    EXPECT_EQ(WaitForSingleObject(event, 0), static_cast<DWORD>(WAIT_TIMEOUT));
    ASSERT_EQ(Select(server, FD_CLOSE), 0);
    EXPECT_TRUE(IsQuiet()) << "reading is not asked for any more";
    ASSERT_EQ(Select(server, FD_OOB), 0);
    EXPECT_EQ(Send(client, "!", MSG_OOB), 1);
    EXPECT_EQ(Next(server), FD_OOB);
    EXPECT_EQ(Receive(server, 1, MSG_OOB), "!");
    EXPECT_TRUE(IsQuiet());
    EXPECT_EQ(Send(client, "!", MSG_OOB), 1);
    EXPECT_EQ(Next(server), FD_OOB);
    CloseHandle(event);
}

TEST_F(AsyncSelectTest, AcceptedSocketsAreToldOfUnderTheirOwnHandles) {
    sockaddr_in name;
    const SOCKET listener = Listener(&name);
    ASSERT_EQ(Select(listener, FD_ACCEPT | FD_READ), 0);
    const SOCKET client = Stream();
    ASSERT_EQ(Connect(client, name), 0);
    EXPECT_EQ(Next(listener), FD_ACCEPT);
    const SOCKET server = Accept(listener);
    ASSERT_NE(server, INVALID_SOCKET);
    Send(client, "a");
    EXPECT_EQ(Next(server), FD_READ);
    EXPECT_EQ(Accept(listener), INVALID_SOCKET);
    EXPECT_EQ(Error, WSAEWOULDBLOCK);
    Close(server);
    Send(client, "b");
    EXPECT_TRUE(IsQuiet()) << "a closed socket has no events";
}

int CALLBACK Defer(LPWSABUF, LPWSABUF, LPQOS, LPQOS, LPWSABUF, LPWSABUF, GROUP*, DWORD_PTR) {
    return CF_DEFER;
}

TEST_F(AsyncSelectTest, AConnectionThatIsPutOffIsNotToldAgain) {
    sockaddr_in name;
    const SOCKET listener = Listener(&name);
    ASSERT_EQ(Select(listener, FD_ACCEPT), 0);
    const SOCKET first = Stream();
    ASSERT_EQ(Connect(first, name), 0);
    EXPECT_EQ(Next(listener), FD_ACCEPT);
    const SOCKET second = Stream();
    ASSERT_EQ(Connect(second, name), 0);
    EXPECT_EQ(CALL(Accept, listener, nullptr, nullptr, Defer, 0), INVALID_SOCKET);
    EXPECT_EQ(Error, WSATRY_AGAIN);
    if (Keeps(Documented::kDeferredConnectionIsReady)) {
        EXPECT_TRUE(IsQuiet());
    }
    EXPECT_NE(Accept(listener), INVALID_SOCKET);
    EXPECT_EQ(Next(listener), FD_ACCEPT) << "for the second one";
}

}  // namespace
