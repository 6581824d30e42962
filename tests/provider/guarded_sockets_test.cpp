// What the layer's own socket calls make of an exception, and of arguments that must not reach the API.
#include <gtest/gtest.h>

#include <future>
#include <string>

#include "platform/kernel/fault_points.h"
#include "platform/testing/debug_output.h"
#include "platform/testing/resource_counts.h"
#include "provider/guarded_sockets.h"
#include "provider/process_state.h"

namespace {

constexpr DWORD kAccessViolation = 0xC0000005;

class GuardedSockets : public ::testing::Test {
  protected:
    void SetUp() override {
        before_ = platform::CountResources();
        InitializeLocks();
        WSADATA data{};
        ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
    }
    void TearDown() override {
        EXPECT_EQ(WSACleanup(), 0);
        DeleteLocks();
        EXPECT_EQ(platform::SettleTo(before_), "");
    }

    /// Runs `call` while `function` raises; expects `failure`, WSAEFAULT and a line that begins with `line`.
    template <class Result, class Call>
    void ExpectCaught(const char* function, Result failure, const std::string& line, Call call) {
        const platform::DebugOutputCapture output;
        const platform::ScopedFault fault({function, 1, platform::FaultKind::kException, kAccessViolation});
        WSASetLastError(0);
        EXPECT_EQ(call(), failure) << function;
        EXPECT_EQ(WSAGetLastError(), WSAEFAULT) << function;
        EXPECT_EQ(platform::FaultsStruck(), 1) << function;
        EXPECT_TRUE(output.Contains(line)) << function << ": " << line;
    }

    platform::ResourceCounts before_;
};

TEST_F(GuardedSockets, ExceptionsBecomeFailures) {
    SOCKET s = SafeWSASocket(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED);
    ASSERT_NE(s, INVALID_SOCKET);
    const std::string socketNumber = std::to_string(static_cast<int>(s));
    const std::string thread = std::to_string(GetCurrentThreadId());
    const std::string onSocket = " socket " + socketNumber + " from thread " + thread;
    sockaddr_in name{};
    name.sin_family = AF_INET;
    const auto* address = reinterpret_cast<const sockaddr*>(&name);
    char byte = 0;
    WSABUF buffer = {1, &byte};
    DWORD bytes = 0;
    DWORD flags = 0;
    u_long argument = 0;
    OVERLAPPED overlapped{};

    ExpectCaught("WSASend", SOCKET_ERROR, "ERROR:LSP WSASend EXCEPTION in thread: " + thread,
                 [&] { return SafeWSASend(s, &buffer, 1, &bytes, 0, nullptr, nullptr); });
    ExpectCaught("WSARecv", SOCKET_ERROR, "ERROR:LSP WSARecv EXCEPTION in thread: " + thread,
                 [&] { return SafeWSARecv(s, &buffer, 1, &bytes, &flags, nullptr, nullptr); });
    ExpectCaught("shutdown", SOCKET_ERROR, "ERROR:EXCEPTION when shutting down lsp socket " + socketNumber,
                 [&] { return SafeShutdown(s, SD_BOTH); });
    ExpectCaught("closesocket", SOCKET_ERROR, "ERROR:EXCEPTION when closing lsp socket " + socketNumber,
                 [&] { return SafeCloseSocket(s); });
    ExpectCaught("WSASocketA", INVALID_SOCKET,
                 "ERROR:Unhandled EXCEPTION when creating socket from thread " + thread,
                 [&] { return SafeWSASocket(AF_INET, SOCK_STREAM, 0, nullptr, 0, 0); });
    ExpectCaught("WSAGetOverlappedResult", BOOL{FALSE},
                 "ERROR:Unhandled EXCEPTION when getting overlapped result for" + onSocket,
                 [&] { return SafeWSAGetOverlappedResult(s, &overlapped, &bytes, FALSE, &flags); });
    ExpectCaught("WSAIoctl", BOOL{FALSE},
                 "ERROR:Unhandled lsp EXCEPTION when connecting ex on socket " + socketNumber,
                 [&] { return SafeConnectEx(s, address, sizeof(name), nullptr, 0, nullptr, &overlapped); });
    ExpectCaught("connect", SOCKET_ERROR, "ERROR:Unhandled EXCEPTION when connecting" + onSocket,
                 [&] { return SafeConnect(s, address, sizeof(name)); });
    ExpectCaught("setsockopt", SOCKET_ERROR,
                 "ERROR:Unhandled EXCEPTION when calling setsockopt on" + onSocket,
                 [&] { return SafeSetSockOpt(s, SOL_SOCKET, SO_SNDBUF, &byte, 1); });
    ExpectCaught("ioctlsocket", SOCKET_ERROR,
                 "ERROR:Unhandled EXCEPTION when calling ioctlsocket on" + onSocket,
                 [&] { return SafeIoctlSocket(s, static_cast<LONG>(FIONBIO), &argument); });
    ExpectCaught("bind", SOCKET_ERROR, "ERROR:Unhandled EXCEPTION when calling bind on" + onSocket,
                 [&] { return SafeBind(s, address, sizeof(name)); });
    ExpectCaught("listen", SOCKET_ERROR, "ERROR:Unhandled EXCEPTION when calling listen on" + onSocket,
                 [&] { return SafeListen(s, 1); });
    ExpectCaught("AcceptEx", BOOL{FALSE}, "ERROR:EXCEPTION when accepting on socket " + socketNumber,
                 [&] { return SafeAcceptEx(s, INVALID_SOCKET, &byte, 0, 0, 0, &bytes, &overlapped); });

    // The lock around creating and closing was given back each time: another thread gets through.
    auto other = std::async(std::launch::async, [] {
        return SafeCloseSocket(SafeWSASocket(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, 0));
    });
    EXPECT_EQ(other.get(), 0);
    CloseSocketCompletely(s);
    EXPECT_EQ(s, INVALID_SOCKET);
}

TEST_F(GuardedSockets, HandlesThatAreNoneReachNoCall) {
    platform::CountCalls();
    for (const SOCKET none : {SOCKET{0}, SOCKET{INVALID_SOCKET}}) {
        WSASetLastError(0);
        EXPECT_EQ(SafeShutdown(none, SD_BOTH), SOCKET_ERROR);
        EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
        EXPECT_EQ(SafeCloseSocket(none), 0);
    }
    EXPECT_TRUE(SafeCloseHandle(nullptr));
    EXPECT_TRUE(SafeCloseHandle(INVALID_HANDLE_VALUE));
    for (const std::string& call : platform::CountedCalls()) {
        EXPECT_TRUE(call != "shutdown" && call != "closesocket" && call != "CloseHandle") << call;
    }
    platform::DisarmFaults();
}

TEST_F(GuardedSockets, ConnectByTheExtensionFunctionAndCloseForThePeerToSee) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    auto* const address = reinterpret_cast<sockaddr*>(&name);
    SOCKET s = SafeWSASocket(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED);
    EXPECT_EQ(SafeBind(s, address, sizeof(name)), 0);
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    SOCKET listener = SafeWSASocket(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED);
    EXPECT_EQ(SafeBind(listener, address, sizeof(name)), 0);
    EXPECT_EQ(SafeListen(listener, 1), 0);
    int length = sizeof(name);
    EXPECT_EQ(SafeGetSockName(listener, address, &length), 0);

    OVERLAPPED overlapped{};
    overlapped.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    char greeting[] = "hello";
    DWORD bytes = 0;
    DWORD flags = 0;
    if (!SafeConnectEx(s, address, sizeof(name), greeting, 5, &bytes, &overlapped)) {
        EXPECT_EQ(WSAGetLastError(), WSA_IO_PENDING);
    }
    EXPECT_TRUE(SafeWSAGetOverlappedResult(s, &overlapped, &bytes, TRUE, &flags));
    EXPECT_EQ(bytes, 5u);
    EXPECT_EQ(setsockopt(s, SOL_SOCKET, SO_UPDATE_CONNECT_CONTEXT, nullptr, 0), 0);
    SOCKET peer = accept(listener, nullptr, nullptr);
    char received[8];
    EXPECT_EQ(recv(peer, received, sizeof(received), 0), 5);
    CloseSocketCompletely(s);
    EXPECT_EQ(recv(peer, received, sizeof(received), 0), 0) << "the peer sees the end";
    CloseHandle(overlapped.hEvent);
    for (SOCKET* const socket : {&peer, &listener})
        CloseSocketCompletely(*socket);
}

TEST_F(GuardedSockets, ConnectExThatIsMissingFailsAfterItsLine) {
    const SOCKET s = SafeWSASocket(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED);
    sockaddr_in name{};
    OVERLAPPED overlapped{};
    {
        const platform::DebugOutputCapture output;
        const platform::ScopedFault fault({"WSAIoctl", 1, platform::FaultKind::kError, WSAEINVAL});
        EXPECT_FALSE(SafeConnectEx(s, reinterpret_cast<sockaddr*>(&name), sizeof(name), nullptr, 0, nullptr,
                                   &overlapped));
        EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
        EXPECT_TRUE(
            output.Contains("ERROR:Unhandled EXCEPTION when obtaining the connect ex function for socket " +
                            std::to_string(static_cast<int>(s)) + ". 10022."));
    }
    SafeCloseSocket(s);
}

}  // namespace
