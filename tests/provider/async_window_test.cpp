// The hidden window's thread above a provider that does what it is told: the race of an accepted socket, the
// failures of its start, and when the library may go.
#include <chrono>
#include <future>
#include <thread>

#include "platform/kernel/fault_points.h"
#include "platform/testing/clock.h"
#include "tests/provider/loaded_layer.h"
#include "tests/support/message_window.h"
#include "tests/support/scripted_layer_fixture.h"

namespace {

using Op = ProviderOperation;

constexpr UINT kLowerMessage = WM_USER + 321;

class AsyncWindow : public ScriptedLayerFixture {
  protected:
    /// The hidden window, as the lower provider was told it last.
    HWND Hidden() { return Provider().Calls(Op::kAsyncSelect).back().window; }

    void PostLowerEvent(SOCKET lowerSocket, int event) {
        EXPECT_TRUE(PostMessageA(Hidden(), kLowerMessage, lowerSocket, WSAMAKESELECTREPLY(event, 0)));
    }

    SOCKET LowerSocketOf(SOCKET s) {
        listen(s, 1);
        return Provider().Calls(Op::kListen).back().socket;
    }

    static SOCKET Stream() { return socket(AF_INET, SOCK_STREAM, IPPROTO_TCP); }
};

TEST_F(AsyncWindow, TheLowerProviderIsToldTheHiddenWindow) {
    StartAbove(1);
    MessageWindow window;
    const SOCKET s = Stream();
    const SOCKET lowerSocket = LowerSocketOf(s);
    ASSERT_EQ(window.Select(s, FD_READ | FD_CLOSE), 0);
    const ProviderCallRecord told = Provider().Calls(Op::kAsyncSelect).at(0);
    EXPECT_EQ(told.socket, lowerSocket);
    EXPECT_NE(told.window, window.handle());
    EXPECT_EQ(told.message, kLowerMessage);
    EXPECT_EQ(told.value, static_cast<DWORD>(FD_READ | FD_CLOSE));
    const LPARAM anything = MAKELONG(0x1234, 0xFEDC);
    PostMessageA(told.window, kLowerMessage, lowerSocket, anything);
    EXPECT_EQ(window.Next(), (NetworkEvent{s, 0x1234, 0xFEDC})) << "nothing of it is the layer's business";
    ProviderReply refusal;
    refusal.error = WSAENETDOWN;
    Provider().ReplyOnce(Op::kAsyncSelect, refusal);
    EXPECT_EQ(window.Select(s, FD_READ), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAENETDOWN);
    closesocket(s);
}

TEST_F(AsyncWindow, AnEventThatComesBeforeTheAcceptedSocketIsThereWaitsForIt) {
    StartAbove(1);
    MessageWindow window;
    const SOCKET listener = Stream();
    ASSERT_EQ(window.Select(listener, FD_ACCEPT | FD_READ), 0);
    const SOCKET other = Stream();
    ASSERT_EQ(window.Select(other, FD_WRITE), 0);
    ProviderReply accepting;
    accepting.made = [this](SOCKET lowerSocket) {
        // Told before the layer has heard of the socket; it goes on only when the window waits for it.
        const platform::ScopedClockRate stopped(0);
        PostLowerEvent(lowerSocket, FD_READ);
        EXPECT_TRUE(platform::WaitForTimedWaits(1));
    };
    Provider().ReplyOnce(Op::kAccept, accepting);
    const SOCKET accepted = accept(listener, nullptr, nullptr);
    ASSERT_NE(accepted, INVALID_SOCKET);
    EXPECT_EQ(window.Next(), (NetworkEvent{accepted, FD_READ, 0}));
    for (const SOCKET s : {accepted, listener, other})
        closesocket(s);
}

TEST_F(AsyncWindow, AnEventOfASocketThatDoesNotComeIsDroppedAfterSevenWaits) {
    StartAbove(1);
    MessageWindow window;
    const SOCKET listener = Stream();
    const SOCKET lowerListener = LowerSocketOf(listener);
    ASSERT_EQ(window.Select(listener, FD_ACCEPT), 0);
    ProviderReply accepting;
    accepting.made = [&](SOCKET lowerSocket) {
        const platform::ScopedClockRate stopped(0);
        PostLowerEvent(lowerSocket, FD_READ);
        PostLowerEvent(lowerListener, FD_ACCEPT);
        EXPECT_TRUE(platform::WaitForTimedWaits(1));
        // Other sockets that come make it look, and go on waiting.
        for (int i = 0; i < 20; ++i)
            closesocket(Stream());
        for (int waits = 1; waits <= 7; ++waits) {
            EXPECT_TRUE(window.Pending().empty()) << waits;
            const std::uint64_t begun = platform::CountBegunTimedWaits();
            EXPECT_TRUE(platform::WaitForTimedWaits(1));
            platform::AdvanceClock(500);
            while (waits < 7 && platform::CountBegunTimedWaits() == begun)
                std::this_thread::yield();
        }
        EXPECT_EQ(window.Next(), (NetworkEvent{listener, FD_ACCEPT, 0})) << "the next one's turn";
    };
    Provider().ReplyOnce(Op::kAccept, accepting);
    const SOCKET accepted = accept(listener, nullptr, nullptr);
    PostLowerEvent(lowerListener, FD_ACCEPT);
    EXPECT_EQ(window.Next(), (NetworkEvent{listener, FD_ACCEPT, 0})) << "nothing came of the accepted one";
    closesocket(accepted);
    closesocket(listener);
}

TEST_F(AsyncWindow, AnAcceptWithoutAWindowHoldsUpNobody) {
    StartAbove(1);
    MessageWindow window;
    const SOCKET s = Stream();
    const SOCKET lowerSocket = LowerSocketOf(s);
    ASSERT_EQ(window.Select(s, FD_READ), 0);
    const SOCKET listener = Stream();
    std::promise<void> leave;
    ProviderReply accepting;
    accepting.during = [&leave](const ProviderCallRecord&) { leave.get_future().wait(); };
    Provider().ReplyOnce(Op::kAccept, accepting);
    auto blocked = std::async(std::launch::async, [&] { return accept(listener, nullptr, nullptr); });
    ASSERT_TRUE(Provider().WaitForCalls(Op::kAccept, 1));
    const platform::ScopedClockRate stopped(0);
    PostLowerEvent(0x7ffc, FD_READ);
    PostLowerEvent(lowerSocket, FD_READ);
    EXPECT_EQ(window.Next(), (NetworkEvent{s, FD_READ, 0}));
    leave.set_value();
    for (const SOCKET open : {s, listener, blocked.get()})
        closesocket(open);
}

TEST_F(AsyncWindow, AnEventIsNotLostWhileTheApplicationsQueueIsFull) {
    StartAbove(1);
    MessageWindow window;
    const SOCKET s = Stream();
    const SOCKET lowerSocket = LowerSocketOf(s);
    ASSERT_EQ(window.Select(s, FD_READ), 0);
    const platform::ScopedFault full({"WPUPostMessage", 1, platform::FaultKind::kError, 1816});
    PostLowerEvent(lowerSocket, FD_READ);
    EXPECT_EQ(window.Next(), (NetworkEvent{s, FD_READ, 0}));
    EXPECT_EQ(platform::FaultsStruck(), 1);
    closesocket(s);
}

TEST_F(AsyncWindow, ACleanUpDoesNotWaitForEventsThatNobodyGets) {
    StartAbove(1);
    MessageWindow window;
    const SOCKET listener = Stream();
    ASSERT_EQ(window.Select(listener, FD_ACCEPT), 0);
    std::promise<void> leave;
    ProviderReply accepting;
    accepting.during = [&leave](const ProviderCallRecord&) { leave.get_future().wait(); };
    Provider().ReplyOnce(Op::kAccept, accepting);
    auto blocked = std::async(std::launch::async, [&] { return accept(listener, nullptr, nullptr); });
    ASSERT_TRUE(Provider().WaitForCalls(Op::kAccept, 1));
    const HWND hidden = Hidden();
    platform::SetClockRate(0);
    for (SOCKET stranger = 0x7000; stranger < 0x7040; stranger += 4)
        PostLowerEvent(stranger, FD_READ);
    ASSERT_TRUE(platform::WaitForTimedWaits(1));
    std::thread ending([] { EXPECT_EQ(WSACleanup(), 0); });
    while (IsWindow(hidden))
        std::this_thread::yield();
    platform::ResetClock();
    leave.set_value();
    blocked.get();
    ending.join();
    StartWinsock();
}

TEST_F(AsyncWindow, AStartThatFailsIsNotTriedAgainButForAThread) {
    StartAbove(1);
    MessageWindow window;
    const SOCKET s = Stream();
    for (const char* function : {"CreateEventA", "GetModuleHandleExW", "CreateThread"}) {
        platform::Fault failing{function};
        failing.repeat = true;  // also for a thread of the layer's that happens to start now
        const platform::ScopedFault fault(failing);
        EXPECT_EQ(window.Select(s, FD_READ), SOCKET_ERROR) << function;
        EXPECT_EQ(WSAGetLastError(), WSAEINVAL) << function;
    }
    ASSERT_EQ(window.Select(s, FD_READ), 0) << "nothing was started before";
    StopWinsock();

    for (const char* function : {"RegisterClassA", "CreateWindowExA"}) {
        StartAbove(1);
        {
            const LoadedLayer kept(Settings().layer);
            const platform::ScopedFault fault({function});
            EXPECT_EQ(window.Select(Stream(), FD_READ), SOCKET_ERROR) << function;
            EXPECT_EQ(platform::FaultsStruck(), 1) << function;
            for (int lives = 0; lives < 2; ++lives) {
                EXPECT_EQ(window.Select(Stream(), FD_READ), SOCKET_ERROR) << function;
                EXPECT_EQ(WSAGetLastError(), WSAEINVAL) << function;
                WSADATA data{};
                EXPECT_EQ(WSACleanup(), 0);
                EXPECT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
            }
        }
        StopWinsock();
    }
    EXPECT_EQ(Provider().Calls(Op::kAsyncSelect).size(), 1u);
}

TEST_F(AsyncWindow, TheLibraryStaysUntilTheWindowHasEnded) {
    StartAbove(1);
    if (GetModuleHandleA(Settings().layer.c_str()) != nullptr) GTEST_SKIP() << "an earlier test left it";
    WSAPROTOCOL_INFOW tcp = EntryOf(SOCK_STREAM);
    LoadedLayer layer(Settings().layer);
    WSPDATA data{};
    WSPPROC_TABLE table{};
    WSPUPCALLTABLE upcalls = Upcalls();
    upcalls.lpWPUPostMessage = WPUPostMessage;
    ASSERT_EQ(layer.Export<LPWSPSTARTUP>("WSPStartup")(MAKEWORD(2, 2), &data, &tcp, upcalls, &table), 0);
    INT error = 0;
    const SOCKET s = table.lpWSPSocket(AF_INET, SOCK_STREAM, 0, nullptr, 0, 0, &error);
    MessageWindow window;
    ASSERT_EQ(table.lpWSPAsyncSelect(s, window.handle(), MessageWindow::kMessage, FD_READ, &error), 0);
    const SOCKET lowerSocket = Provider().Calls(Op::kAsyncSelect).back().socket;
    for (int i = 0; i < 100; ++i)
        PostLowerEvent(lowerSocket, FD_READ);
    layer.Unload();
    EXPECT_NE(GetModuleHandleA(Settings().layer.c_str()), nullptr) << "the thread runs in it";
    EXPECT_EQ(window.Next(), (NetworkEvent{s, FD_READ, 0}));
    const platform::ScopedClockRate fast(10);
    LoadedLayer again(Settings().layer);
    EXPECT_EQ(table.lpWSPCleanup(&error), 0);
    again.Unload();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (GetModuleHandleA(Settings().layer.c_str()) != nullptr &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_EQ(GetModuleHandleA(Settings().layer.c_str()), nullptr);
}

}  // namespace
