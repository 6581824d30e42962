// What only the 32-bit DLL can show: structured exceptions of the target's own kind that are raised below the
// layer, in the provider's operations and in the functions that it imports.
#include <winsock2.h>

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "platform/kernel/fault_points.h"
#include "tests/support/connect_fixture.h"

namespace {

constexpr DWORD kAccessViolation = 0xC0000005;
constexpr DWORD kOwnException = 0xE0000042;
constexpr int kThreads = 4;

using LayerOnWindows = ConnectFixture;

platform::Fault Raise(const char* function, DWORD code) {
    return {function, 1, platform::FaultKind::kException, code, true};
}

/// Every call that an application can make on a stream socket without a peer; how many failed.
int CallEverything(SOCKET s, const sockaddr_in& name) {
    const auto* address = reinterpret_cast<const sockaddr*>(&name);
    char buffer[64] = {};
    int length = sizeof(buffer);
    sockaddr_in found{};
    int nameLength = sizeof(found);
    u_long on = 1;
    DWORD returned = 0;
    fd_set set;
    FD_ZERO(&set);
    FD_SET(s, &set);
    timeval now = {0, 0};
    const int results[] = {
        bind(s, address, sizeof(name)),
        listen(s, 1),
        connect(s, address, sizeof(name)),
        accept(s, nullptr, nullptr) == INVALID_SOCKET ? SOCKET_ERROR : 0,
        send(s, buffer, 1, 0),
        sendto(s, buffer, 1, 0, address, sizeof(name)),
        recv(s, buffer, 1, 0),
        recvfrom(s, buffer, 1, 0, reinterpret_cast<sockaddr*>(&found), &nameLength),
        shutdown(s, SD_BOTH),
        getsockopt(s, SOL_SOCKET, SO_TYPE, buffer, &length),
        setsockopt(s, SOL_SOCKET, SO_KEEPALIVE, buffer, sizeof(int)),
        getsockname(s, reinterpret_cast<sockaddr*>(&found), &nameLength),
        getpeername(s, reinterpret_cast<sockaddr*>(&found), &nameLength),
        ioctlsocket(s, static_cast<LONG>(FIONBIO), &on),
        WSAIoctl(s, FIONREAD, nullptr, 0, buffer, sizeof(u_long), &returned, nullptr, nullptr),
        WSAEventSelect(s, nullptr, 0),
        select(0, &set, nullptr, nullptr, &now),
    };
    int failed = 0;
    for (const int result : results)
        failed += result == SOCKET_ERROR ? 1 : 0;
    return failed;
}

TEST_F(LayerOnWindows, ExceptionsOfTheLowerProviderBecomeErrors) {
    const char* const operations[] = {
        "lower WSPBind",        "lower WSPListen",     "lower WSPConnect",     "lower WSPAccept",
        "lower WSPSend",        "lower WSPSendTo",     "lower WSPRecv",        "lower WSPRecvFrom",
        "lower WSPShutdown",    "lower WSPGetSockOpt", "lower WSPSetSockOpt",  "lower WSPGetSockName",
        "lower WSPGetPeerName", "lower WSPIoctl",      "lower WSPEventSelect", "lower WSPSelect"};
    StartWinsock();
    const sockaddr_in name = Ipv4("127.0.0.1", 0);
    for (const DWORD code : {kAccessViolation, kOwnException}) {
        for (const char* const operation : operations) {
            SOCKET sockets[kThreads];
            for (SOCKET& s : sockets) {
                u_long on = 1;
                s = StreamSocket();
                ASSERT_EQ(ioctlsocket(s, static_cast<LONG>(FIONBIO), &on), 0);
            }
            std::promise<void> armed;
            const std::shared_future<void> start = armed.get_future().share();
            std::vector<std::thread> threads;
            std::atomic<int> failed{0};
            for (const SOCKET s : sockets) {
                threads.emplace_back([&failed, &name, s, start] {
                    start.wait();
                    failed += CallEverything(s, name);
                    EXPECT_EQ(closesocket(s), 0);
                });
            }
            const platform::ScopedFault fault(Raise(operation, code));
            armed.set_value();
            for (std::thread& thread : threads)
                thread.join();
            EXPECT_GE(platform::FaultsStruck(), kThreads) << operation;
            EXPECT_GE(failed.load(), kThreads) << operation;
        }
    }
}

TEST_F(LayerOnWindows, ExceptionsOfImportedFunctionsLeaveTheConnectItsResult) {
    SetRegistryValue("StopActivityOnFailConnect", 1);
    StartWinsock();
    EXPECT_EQ(ConnectOnce(), 0);
    for (const char* const function : {"WSASocketA", "select", "WSASend", "WSARecv"}) {
        const platform::ScopedFault fault(Raise(function, kAccessViolation));
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&] { EXPECT_EQ(ConnectOnce(), WSAECONNREFUSED) << function; });
        }
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_GE(platform::FaultsStruck(), 1) << function;
    }
    EXPECT_EQ(ConnectOnce(), 0);
}

}  // namespace
