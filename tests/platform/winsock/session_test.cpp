// Winsock's start and end, and when providers are loaded, started, cleaned up and unloaded.
#include <winsock2.h>

#include <ws2spi.h>

#include <atomic>
#include <string>
#include <thread>

#include "platform/kernel/fault_points.h"
#include "tests/platform/kernel/environment_variable.h"
#include "tests/platform/winsock/host_fixture.h"

namespace {

class SessionTest : public HostFixture {};

TEST_F(SessionTest, EveryCallNeedsAStart) {
    const SOCKET s = TcpSocket();
    ASSERT_NE(s, INVALID_SOCKET);
    StopWinsock();
    EXPECT_EQ(WSAGetLastError(), WSANOTINITIALISED) << "of the clean-up too many";
    WSASetLastError(0);
    EXPECT_EQ(send(s, "x", 1, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSANOTINITIALISED);
    WSASetLastError(0);
    EXPECT_EQ(TcpSocket(), INVALID_SOCKET);
    EXPECT_EQ(WSAGetLastError(), WSANOTINITIALISED);
    WSADATA data;
    ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
    EXPECT_EQ(send(s, "x", 1, 0), SOCKET_ERROR) << "a socket does not survive the last clean-up";
    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
}

TEST_F(SessionTest, VersionsAreNegotiated) {
    const struct {
        WORD asked;
        WORD given;
        int result;
    } cases[] = {
        {MAKEWORD(2, 2), MAKEWORD(2, 2), 0},     {MAKEWORD(2, 0), MAKEWORD(2, 0), 0},
        {MAKEWORD(3, 0), MAKEWORD(2, 2), 0},     {MAKEWORD(2, 9), MAKEWORD(2, 2), 0},
        {MAKEWORD(1, 1), MAKEWORD(1, 1), 0},     {MAKEWORD(1, 7), MAKEWORD(1, 1), 0},
        {MAKEWORD(0, 2), 0, WSAVERNOTSUPPORTED},
    };
    for (const auto& c : cases) {
        WSADATA data{};
        EXPECT_EQ(WSAStartup(c.asked, &data), c.result) << c.asked;
        EXPECT_EQ(data.wVersion, c.given) << c.asked;
    }
    EXPECT_EQ(WSAStartup(MAKEWORD(2, 2), nullptr), WSAEFAULT);
}

TEST_F(SessionTest, AnEntryIsStartedAtItsFirstSocketAndCleanedUpByTheLastCleanup) {
    WSADATA data;
    ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
    EXPECT_EQ(provider_->Startups(), 0);
    TcpSocket();
    TcpSocket();
    EXPECT_EQ(provider_->Startups(), 1);
    EXPECT_EQ(provider_->StartupInfo().dwCatalogEntryId, winsock_host::kTcpEntry);
    socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_EQ(provider_->Startups(), 2) << "one for every entry that is used";
    EXPECT_EQ(WSACleanup(), 0);
    EXPECT_EQ(provider_->Cleanups(), 0);
    EXPECT_EQ(WSACleanup(), 0);
    EXPECT_EQ(provider_->Cleanups(), 2);
    EXPECT_EQ(platform::CountResources().layeredSockets, 0) << "the provider left its handles to Winsock";
}

TEST_F(SessionTest, AProviderClosesItsSocketsThroughWinsockWhileItEnds) {
    const SOCKET s = TcpSocket();
    int closed = SOCKET_ERROR;
    ProviderReply reply;
    reply.during = [&](const ProviderCallRecord&) { closed = closesocket(s); };
    provider_->ReplyOnce(ProviderOperation::kCleanup, reply);
    EXPECT_EQ(WSACleanup(), 0);
    EXPECT_EQ(closed, 0);
    EXPECT_EQ(provider_->Calls(ProviderOperation::kCloseSocket).size(), 1u);
}

TEST_F(SessionTest, AProviderThatCannotStartFailsTheSocketAndIsTriedAgain) {
    const auto expectFailure = [&](int error, const char* why) {
        EXPECT_EQ(TcpSocket(), INVALID_SOCKET) << why;
        EXPECT_EQ(WSAGetLastError(), error) << why;
    };
    provider_->ScriptStartup(WSAEACCES);
    expectFailure(WSAEACCES, "the provider's own error");
    for (const int slot : {0, 5, 29}) {
        provider_->ScriptStartup(0, slot);
        expectFailure(WSAEINVALIDPROCTABLE, ("slot " + std::to_string(slot)).c_str());
    }
    EXPECT_EQ(provider_->Cleanups(), 2) << "started by halves, each is cleaned up where it can be";
    provider_->ScriptStartup(0, -1, MAKEWORD(1, 1));
    expectFailure(WSAVERNOTSUPPORTED, "old version");
    provider_->ScriptStartup(0);
    EXPECT_NE(TcpSocket(), INVALID_SOCKET);

    RestartWith(winsock_host::MakeBaseCatalog(winsock_host::Widen("/no/such/provider.so")));
    expectFailure(WSAEPROVIDERFAILEDINIT, "no library");
}

TEST_F(SessionTest, PathsAreExpanded) {
    const std::string path = winsock_host::Narrow(ScriptedProviderModule::Path().c_str());
    const std::size_t slash = path.rfind('/');
    const ScopedVariable folder("QX_TEST_FOLDER", path.substr(0, slash).c_str());
    RestartWith(winsock_host::MakeBaseCatalog(winsock_host::Widen("%QX_TEST_FOLDER%" + path.substr(slash))));
    EXPECT_NE(TcpSocket(), INVALID_SOCKET);
}

TEST_F(SessionTest, CodeIsNotUnloadedUnderACallOfAnotherThread) {
    const SOCKET s = TcpSocket();
    std::atomic<bool> cleanedUp{false};
    std::atomic<bool> leftFirst{false};
    ProviderReply blocked;
    blocked.during = [&](const ProviderCallRecord&) {
        while (!cleanedUp)
            std::this_thread::yield();
        leftFirst = true;
    };
    provider_->ReplyOnce(ProviderOperation::kRecv, blocked);
    ProviderReply cleanup;
    cleanup.during = [&](const ProviderCallRecord&) { cleanedUp = true; };
    provider_->ReplyOnce(ProviderOperation::kCleanup, cleanup);
    std::thread reader([&] {
        char byte;
        recv(s, &byte, 1, 0);
    });
    ASSERT_TRUE(provider_->WaitForCalls(ProviderOperation::kRecv, 1));
    EXPECT_EQ(WSACleanup(), 0);
    EXPECT_TRUE(leftFirst);
    reader.join();
}

TEST_F(SessionTest, OnlyCallsOfTheApplicationAndTheProviderAreFaultPoints) {
    const SOCKET s = TcpSocket();
    ProviderReply reply;
    reply.during = [](const ProviderCallRecord&) { WSACloseEvent(WSACreateEvent()); };
    provider_->ReplyOnce(ProviderOperation::kSend, reply);
    platform::CountCalls();
    send(s, "x", 1, 0);
    WSACloseEvent(WSACreateEvent());
    EXPECT_EQ(platform::CountedCalls(), (std::vector<std::string>{"send", "WSACreateEvent", "WSACloseEvent",
                                                                  "WSACreateEvent", "WSACloseEvent"}));
    platform::DisarmFaults();

    const platform::ScopedFault armed({"WSACreateEvent", 2});
    const WSAEVENT first = WSACreateEvent();
    EXPECT_NE(first, WSA_INVALID_EVENT);
    EXPECT_EQ(WSACreateEvent(), WSA_INVALID_EVENT);
    EXPECT_EQ(WSAGetLastError(), WSA_NOT_ENOUGH_MEMORY);
    WSACloseEvent(first);
}

TEST_F(SessionTest, AShortCountShortensATransfer) {
    const SOCKET s = TcpSocket();
    char first[] = "abc";
    char second[] = "defg";
    WSABUF buffers[] = {{3, first}, {4, second}};
    DWORD sent = 0;
    {
        const platform::ScopedFault armed({"WSASend", 1, platform::FaultKind::kShortCount, 4});
        EXPECT_EQ(WSASend(s, buffers, 2, &sent, 0, nullptr, nullptr), 0);
    }
    EXPECT_EQ(sent, 4u);
    EXPECT_EQ(provider_->Calls(ProviderOperation::kSend).at(0).data, "abcd");
}

}  // namespace
