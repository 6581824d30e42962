// Network events as window messages, through the loaded layer: real traffic above the base provider.
#include <winsock2.h>

#include <windows.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "platform/testing/clock.h"
#include "tests/platform/wine.h"
#include "tests/support/layer_fixture.h"
#include "tests/support/message_window.h"

namespace {

HWND HiddenWindow() {
    char name[32];
    std::snprintf(name, sizeof(name), "Layered WS2 Provider 0x%08x",
                  static_cast<unsigned>(GetCurrentProcessId()));
    return FindWindowA(name, "Layered Hidden Window");
}

class AsyncSelect : public LayerFixture {
  protected:
    static sockaddr* AsName(sockaddr_in& address) { return reinterpret_cast<sockaddr*>(&address); }

    /// A listener whose events the window gets, and its address.
    static SOCKET Listen(const MessageWindow& window, LONG events, sockaddr_in* address) {
        const SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        *address = Ipv4("127.0.0.1", 0);
        int length = sizeof(*address);
        EXPECT_EQ(bind(s, AsName(*address), length), 0) << WSAGetLastError();
        EXPECT_EQ(listen(s, 16), 0);
        EXPECT_EQ(getsockname(s, AsName(*address), &length), 0);
        EXPECT_EQ(window.Select(s, events), 0) << WSAGetLastError();
        return s;
    }

    /// A socket that is being connected; the window is told when it is.
    static SOCKET Connect(const MessageWindow& window, LONG events, sockaddr_in address) {
        const SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        EXPECT_EQ(window.Select(s, events | FD_CONNECT), 0) << WSAGetLastError();
        EXPECT_EQ(connect(s, AsName(address), sizeof(address)), SOCKET_ERROR);
        EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
        return s;
    }

    static std::string Receive(SOCKET s) {
        char buffer[16];
        const int size = recv(s, buffer, sizeof(buffer), 0);
        return size < 0 ? "error" : std::string(buffer, static_cast<std::size_t>(size));
    }
};

TEST_F(AsyncSelect, EventsComeWithTheApplicationsHandle) {
    StartWinsock();
    MessageWindow window;
    sockaddr_in address;
    const SOCKET listener = Listen(window, FD_ACCEPT | FD_READ | FD_CLOSE, &address);
    const SOCKET client = Connect(window, FD_READ | FD_CLOSE, address);
    window.Await(client, FD_CONNECT);
    // The client's message may have been dropped on the way to the listener's.
    SOCKET server = accept(listener, nullptr, nullptr);
    while (server == INVALID_SOCKET) {
        window.Await(listener, FD_ACCEPT);
        server = accept(listener, nullptr, nullptr);
    }
    ASSERT_EQ(send(client, "ping", 4, 0), 4);
    EXPECT_EQ(window.Await(server, FD_READ), (NetworkEvent{server, FD_READ, 0}))
        << "an accepted socket has its listener's events";
    EXPECT_EQ(Receive(server), "ping");
    ASSERT_EQ(send(server, "pong", 4, 0), 4);
    EXPECT_EQ(window.Await(client, FD_READ), (NetworkEvent{client, FD_READ, 0}));
    EXPECT_EQ(Receive(client), "pong");

    // The event's error comes unchanged.
    const linger hard = {1, 0};
    setsockopt(server, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&hard), sizeof(hard));
    EXPECT_EQ(closesocket(server), 0);
    const NetworkEvent closed = window.Await(client, FD_CLOSE);
    if (Keeps(Documented::kResetIsToldLate)) {
        EXPECT_EQ(closed.error, WSAECONNRESET);
    }
    EXPECT_EQ(closesocket(client), 0);
    EXPECT_EQ(closesocket(listener), 0);
}

TEST_F(AsyncSelect, WindowsMasksAndSocketsAreChecked) {
    StartWinsock();
    MessageWindow window;
    const SOCKET s = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    MessageWindow gone;
    const HWND goneWindow = gone.handle();
    gone.Destroy();
    const struct {
        SOCKET s;
        HWND window;
        LONG events;
        int error;
    } rows[] = {
        {s, window.handle(), 0x400, WSAEINVAL},
        {s, goneWindow, FD_READ, WSAEINVAL},
        {s, nullptr, 0, WSAEINVAL},
        {s + 0x4000, window.handle(), FD_READ, WSAENOTSOCK},
        {s, window.handle(), 0x3FF, 0},
        {s, window.handle(), 0, 0},
    };
    for (const auto& row : rows) {
        const int result = WSAAsyncSelect(row.s, row.window, MessageWindow::kMessage, row.events);
        EXPECT_EQ(result == 0 ? 0 : WSAGetLastError(), row.error) << row.events;
        EXPECT_EQ(HiddenWindow() != nullptr, row.error == 0) << "the first good call makes the window";
    }
    EXPECT_EQ(window.Next(), (NetworkEvent{s, FD_WRITE, 0}));
    // The window that is asked for last is told.
    MessageWindow other;
    EXPECT_EQ(other.Select(s, FD_WRITE), 0);
    EXPECT_EQ(other.Next(), (NetworkEvent{s, FD_WRITE, 0}));
    EXPECT_TRUE(window.Pending().empty());
    EXPECT_EQ(closesocket(s), 0);
}

TEST_F(AsyncSelect, TheHiddenWindowIsNobodyElses) {
    StartWinsock();
    MessageWindow window;
    const SOCKET s = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    ASSERT_EQ(window.Select(s, FD_WRITE), 0);
    window.Await(s, FD_WRITE);
    SendMessageA(HiddenWindow(), WM_CLOSE, 0, 0);
    ASSERT_EQ(window.Select(s, FD_WRITE), 0) << "somebody closed all windows of the process";
    window.Await(s, FD_WRITE);
    // An event of a socket that is closed by now holds up nobody, however slowly time passes.
    const platform::ScopedClockRate stopped(0);
    PostMessageA(HiddenWindow(), WM_USER + 321, 0x7ffc, FD_READ);
    ASSERT_EQ(window.Select(s, FD_WRITE), 0);
    EXPECT_EQ(window.Await(s, FD_WRITE), (NetworkEvent{s, FD_WRITE, 0}));
    EXPECT_EQ(closesocket(s), 0);
}

TEST_F(AsyncSelect, SocketsAreClosedAndWindowsGoWhileEventsFlow) {
    StartWinsock();
    sockaddr_in address;
    MessageWindow window;
    const SOCKET listener = Listen(window, FD_ACCEPT | FD_CLOSE, &address);
    for (int round = 0; round < 50; ++round) {
        auto client = std::make_unique<MessageWindow>();
        const SOCKET s = Connect(*client, FD_READ | FD_WRITE | FD_CLOSE, address);
        SOCKET server = accept(listener, nullptr, nullptr);
        while (server == INVALID_SOCKET) {
            window.Await(listener, FD_ACCEPT);
            server = accept(listener, nullptr, nullptr);
        }
        if (round % 3 != 0) client->Await(s, FD_WRITE);
        if (round % 5 == 0) client.reset();
        EXPECT_EQ(send(server, "bytes", 5, 0), 5);
        EXPECT_EQ(closesocket(round % 2 == 0 ? s : server), 0);
        EXPECT_EQ(closesocket(round % 2 == 0 ? server : s), 0);
    }
    EXPECT_EQ(closesocket(listener), 0);
}

TEST_F(AsyncSelect, ACleanUpEndsTheWindowAndAStartUpMakesAnother) {
    MessageWindow window;
    HWND before = nullptr;
    for (int round = 0; round < 3; ++round) {
        StartWinsock();
        EXPECT_EQ(HiddenWindow(), nullptr);
        sockaddr_in address;
        Listen(window, FD_ACCEPT | FD_READ | FD_CLOSE, &address);
        EXPECT_NE(HiddenWindow(), before);
        before = HiddenWindow();
        const SOCKET client = Connect(window, FD_WRITE, address);
        window.Await(client, FD_WRITE);
        // Events flow until everything is taken away.
        std::thread posting([hidden = before] {
            while (PostMessageA(hidden, WM_USER + 321, 0x7ffc, FD_READ) || IsWindow(hidden)) {
            }
        });
        StopWinsock();
        posting.join();
        EXPECT_EQ(HiddenWindow(), nullptr);
        window.Pending();
    }
}

TEST_F(AsyncSelect, ACleanUpOvertakesThreadsThatAskForMore) {
    ExpectLeftovers();  // the library, for a call that was under way
    MessageWindow window;
    StartWinsock();
    for (int round = 0; round < 3; ++round) {
        sockaddr_in address;
        const SOCKET listener = Listen(window, FD_ACCEPT, &address);
        std::atomic<bool> stopping{false};
        std::thread asking([&] {
            while (!stopping) {
                WSAAsyncSelect(listener, window.handle(), MessageWindow::kMessage, FD_ACCEPT | FD_CLOSE);
                const SOCKET s = socket(AF_INET, SOCK_DGRAM, 0);
                if (s == INVALID_SOCKET) continue;
                WSAAsyncSelect(s, window.handle(), MessageWindow::kMessage, FD_WRITE);
                closesocket(s);
            }
        });
        for (int events = 0; events < 20; ++events)
            window.Next();
        EXPECT_EQ(WSACleanup(), 0);
        stopping = true;
        asking.join();
        EXPECT_EQ(HiddenWindow(), nullptr);
        window.Pending();
        WSADATA data{};
        ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
    }
}

}  // namespace
