// Every call on a socket reaches the operation of the socket's provider with its arguments, and comes back
// with the provider's result and error.
#include <winsock2.h>

#include <mswsock.h>
#include <ws2spi.h>

#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/platform/winsock/host_fixture.h"

namespace {

using Op = ProviderOperation;

ProviderReply FailsWith(int error) {
    ProviderReply reply;
    reply.error = error;
    return reply;
}

ProviderReply Delivers(const std::string& data) {
    ProviderReply reply;
    reply.data = data;
    return reply;
}

class RoutingTest : public HostFixture {
  protected:
    void SetUp() override {
        HostFixture::SetUp();
        socket_ = TcpSocket();
        ASSERT_NE(socket_, INVALID_SOCKET);
        address_.sin_family = AF_INET;
        address_.sin_port = htons(80);
        address_.sin_addr.s_addr = inet_addr("192.0.2.1");
    }

    const sockaddr* Address() const { return reinterpret_cast<const sockaddr*>(&address_); }
    std::string AddressBytes() const {
        return std::string(reinterpret_cast<const char*>(&address_), sizeof(address_));
    }

    SOCKET socket_ = INVALID_SOCKET;
    sockaddr_in address_{};
};

// One row per operation whose success is 0 or a count: the call, and what the provider must have seen.
TEST_F(RoutingTest, CallsArriveWithTheirArgumentsAndFailWithTheProvidersError) {
    char buffer[8] = {};
    WSABUF piece{8, buffer};
    DWORD bytes = 0;
    DWORD flags = 0;
    u_long argument = 1;
    int length = sizeof(buffer);
    sockaddr_in name{};
    int nameLength = sizeof(name);
    WSANETWORKEVENTS events{};
    OVERLAPPED overlapped{};
    WSAPROTOCOL_INFOW info{};
    QOS qos{};
    fd_set set;
    FD_ZERO(&set);
    FD_SET(socket_, &set);
    timeval timeout{0, 0};
    const auto always = [](const ProviderCallRecord&) { return true; };
    const auto value = [](DWORD expected) {
        return [expected](const ProviderCallRecord& call) { return call.value == expected; };
    };
    const auto address = [this](const ProviderCallRecord& call) { return call.address == AddressBytes(); };
    const auto data = [](const std::string& expected, DWORD flagsGiven) {
        return
            [=](const ProviderCallRecord& call) { return call.data == expected && call.value == flagsGiven; };
    };
    const auto room = [](DWORD expected) {
        return [expected](const ProviderCallRecord& call) { return call.capacity == expected; };
    };

    struct Row {
        const char* name;
        Op operation;
        std::function<long long(SOCKET)> call;
        std::function<bool(const ProviderCallRecord&)> matches;
    };
    const Row rows[] = {
        {"bind", Op::kBind, [&](SOCKET s) { return bind(s, Address(), sizeof(address_)); }, address},
        {"listen", Op::kListen, [&](SOCKET s) { return listen(s, 17); }, value(17)},
        {"connect", Op::kConnect, [&](SOCKET s) { return connect(s, Address(), sizeof(address_)); }, address},
        {"WSAConnect", Op::kConnect,
         [&](SOCKET s) {
             return WSAConnect(s, Address(), sizeof(address_), nullptr, nullptr, nullptr, nullptr);
         },
         address},
        {"shutdown", Op::kShutdown, [&](SOCKET s) { return shutdown(s, SD_BOTH); }, value(SD_BOTH)},
        {"WSASendDisconnect", Op::kSendDisconnect, [&](SOCKET s) { return WSASendDisconnect(s, nullptr); },
         always},
        {"WSARecvDisconnect", Op::kRecvDisconnect, [&](SOCKET s) { return WSARecvDisconnect(s, nullptr); },
         always},
        {"send", Op::kSend, [&](SOCKET s) { return send(s, "abc", 3, MSG_OOB); }, data("abc", MSG_OOB)},
        {"sendto", Op::kSendTo, [&](SOCKET s) { return sendto(s, "abc", 3, 0, Address(), sizeof(address_)); },
         address},
        {"recv", Op::kRecv, [&](SOCKET s) { return recv(s, buffer, 5, MSG_PEEK); }, value(MSG_PEEK)},
        {"recvfrom", Op::kRecvFrom, [&](SOCKET s) { return recvfrom(s, buffer, 5, 0, nullptr, nullptr); },
         room(5)},
        {"WSASend", Op::kSend, [&](SOCKET s) { return WSASend(s, &piece, 1, &bytes, 4, nullptr, nullptr); },
         data(std::string(8, '\0'), 4)},
        {"WSASendTo", Op::kSendTo,
         [&](SOCKET s) {
             return WSASendTo(s, &piece, 1, &bytes, 0, Address(), sizeof(address_), nullptr, nullptr);
         },
         address},
        {"WSARecv", Op::kRecv,
         [&](SOCKET s) { return WSARecv(s, &piece, 1, &bytes, &flags, nullptr, nullptr); }, room(8)},
        {"WSARecvFrom", Op::kRecvFrom,
         [&](SOCKET s) {
             return WSARecvFrom(s, &piece, 1, &bytes, &flags, nullptr, nullptr, nullptr, nullptr);
         },
         room(8)},
        {"ioctlsocket", Op::kIoctl, [&](SOCKET s) { return ioctlsocket(s, FIONBIO, &argument); },
         value(FIONBIO)},
        {"WSAIoctl", Op::kIoctl,
         [&](SOCKET s) { return WSAIoctl(s, SIO_FLUSH, buffer, 3, buffer, 8, &bytes, nullptr, nullptr); },
         value(SIO_FLUSH)},
        {"getsockopt", Op::kGetSockOpt,
         [&](SOCKET s) { return getsockopt(s, SOL_SOCKET, SO_ERROR, buffer, &length); }, value(SO_ERROR)},
        {"setsockopt", Op::kSetSockOpt,
         [&](SOCKET s) { return setsockopt(s, SOL_SOCKET, SO_LINGER, "on", 2); }, data("on", SO_LINGER)},
        {"getpeername", Op::kGetPeerName,
         [&](SOCKET s) { return getpeername(s, reinterpret_cast<sockaddr*>(&name), &nameLength); }, always},
        {"getsockname", Op::kGetSockName,
         [&](SOCKET s) { return getsockname(s, reinterpret_cast<sockaddr*>(&name), &nameLength); }, always},
        {"WSADuplicateSocket", Op::kDuplicateSocket,
         [&](SOCKET s) { return WSADuplicateSocketW(s, 9, &info); }, value(9)},
        {"WSAEventSelect", Op::kEventSelect, [&](SOCKET s) { return WSAEventSelect(s, nullptr, FD_CLOSE); },
         value(FD_CLOSE)},
        {"WSAAsyncSelect", Op::kAsyncSelect, [&](SOCKET s) { return WSAAsyncSelect(s, nullptr, 0, FD_READ); },
         value(FD_READ)},
        {"WSAEnumNetworkEvents", Op::kEnumNetworkEvents,
         [&](SOCKET s) { return WSAEnumNetworkEvents(s, nullptr, &events); }, always},
        {"WSAGetOverlappedResult", Op::kGetOverlappedResult,
         [&](SOCKET s) { return WSAGetOverlappedResult(s, &overlapped, &bytes, FALSE, &flags) ? 0 : -1; },
         always},
        {"WSAGetQOSByName", Op::kGetQosByName,
         [&](SOCKET s) { return WSAGetQOSByName(s, &piece, &qos) ? 0 : -1; }, always},
        {"select", Op::kSelect, [&](SOCKET) { return select(0, &set, nullptr, nullptr, &timeout); },
         [&](const ProviderCallRecord& call) { return call.readSet == std::vector<SOCKET>{socket_}; }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::size_t before = provider_->Calls(row.operation).size();
        EXPECT_NE(row.call(socket_), -1);
        const auto calls = provider_->Calls(row.operation);
        ASSERT_EQ(calls.size(), before + 1);
        if (row.operation != Op::kSelect) {
            EXPECT_EQ(calls.back().socket, socket_);
        }
        EXPECT_TRUE(row.matches(calls.back()));

        FD_ZERO(&set);
        FD_SET(socket_, &set);
        provider_->ReplyOnce(row.operation, FailsWith(WSAENETRESET));
        WSASetLastError(0);
        EXPECT_EQ(row.call(socket_), -1);
        EXPECT_EQ(WSAGetLastError(), WSAENETRESET);
        if (row.operation == Op::kSelect) continue;
        EXPECT_EQ(row.call(socket_ + 4000), -1);
        EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
    }
}

TEST_F(RoutingTest, SocketArgumentsAndEntriesGoDownAsGiven) {
    WSAPROTOCOL_INFOW info = provider_->StartupInfo();
    info.dwCatalogEntryId = winsock_host::kUdp6Entry;
    info.iAddressFamily = AF_INET6;
    info.iSocketType = SOCK_DGRAM;
    info.iProtocol = IPPROTO_UDP;
    info.dwProviderReserved = 4711;
    const SOCKET s = WSASocketW(FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, &info, 0, 0);
    ASSERT_NE(s, INVALID_SOCKET);
    const auto calls = provider_->Calls(Op::kSocket);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].info.dwCatalogEntryId, winsock_host::kTcpEntry)
        << "without one, the entry that was chosen";
    EXPECT_EQ(calls[0].value, static_cast<DWORD>(WSA_FLAG_OVERLAPPED));
    EXPECT_EQ(calls[1].info.dwProviderReserved, 4711u);
    EXPECT_EQ(calls[1].family, AF_INET6);
    EXPECT_EQ(calls[1].type, SOCK_DGRAM);
    EXPECT_EQ(calls[1].value, 0u);
    EXPECT_EQ(provider_->StartupInfo().dwCatalogEntryId, winsock_host::kUdp6Entry);
    info.dwCatalogEntryId = 4711;
    EXPECT_EQ(WSASocketW(AF_INET, SOCK_STREAM, 0, &info, 0, 0), INVALID_SOCKET);
    EXPECT_EQ(WSAGetLastError(), WSAEINVAL);
}

TEST_F(RoutingTest, AcceptedAndJoinedSocketsAreTheSameProviders) {
    sockaddr_in from{};
    int length = sizeof(from);
    ProviderReply reply;
    reply.address = AddressBytes();
    provider_->ReplyOnce(Op::kAccept, reply);
    const SOCKET accepted = accept(socket_, reinterpret_cast<sockaddr*>(&from), &length);
    ASSERT_NE(accepted, INVALID_SOCKET);
    EXPECT_EQ(from.sin_port, address_.sin_port);
    EXPECT_EQ(send(accepted, "x", 1, 0), 1);
    EXPECT_EQ(closesocket(accepted), 0);
    EXPECT_EQ(closesocket(accepted), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
    const SOCKET leaf =
        WSAJoinLeaf(socket_, Address(), sizeof(address_), nullptr, nullptr, nullptr, nullptr, JL_BOTH);
    ASSERT_NE(leaf, INVALID_SOCKET);
    EXPECT_EQ(closesocket(leaf), 0);
    provider_->ReplyOnce(Op::kAccept, FailsWith(WSAEMFILE));
    EXPECT_EQ(WSAAccept(socket_, nullptr, nullptr, nullptr, 0), INVALID_SOCKET);
    EXPECT_EQ(WSAGetLastError(), WSAEMFILE);
    EXPECT_EQ(provider_->OpenSockets(), 1);
}

TEST_F(RoutingTest, ReceivesReportCountsAndCutMessages) {
    char buffer[8] = {};
    provider_->ReplyOnce(Op::kRecv, Delivers("abcde"));
    EXPECT_EQ(recv(socket_, buffer, sizeof(buffer), 0), 5);
    EXPECT_STREQ(buffer, "abcde");
    ProviderReply part = Delivers("part");
    part.flags = MSG_PARTIAL;
    sockaddr_in from{};
    int length = sizeof(from);
    provider_->ReplyOnce(Op::kRecvFrom, part);
    EXPECT_EQ(recvfrom(socket_, buffer, 4, 0, reinterpret_cast<sockaddr*>(&from), &length), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEMSGSIZE);
    EXPECT_EQ(std::string(buffer, 4), "part");
}

TEST_F(RoutingTest, SelectGoesToTheProviderOfTheFirstSocket) {
    const SOCKET other = socket(AF_INET, SOCK_DGRAM, 0);
    fd_set none;
    FD_ZERO(&none);
    fd_set writeSet;
    FD_ZERO(&writeSet);
    FD_SET(socket_, &writeSet);
    FD_SET(other, &writeSet);
    ProviderReply reply;
    reply.result = 1;
    reply.writeSet = {other};
    provider_->ReplyOnce(Op::kSelect, reply);
    timeval timeout{0, 0};
    EXPECT_EQ(select(0, &none, &writeSet, nullptr, &timeout), 1);
    EXPECT_TRUE(FD_ISSET(other, &writeSet));
    EXPECT_FALSE(FD_ISSET(socket_, &writeSet));
    EXPECT_EQ(select(0, &none, nullptr, nullptr, &timeout), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEINVAL);
    EXPECT_EQ(select(0, nullptr, nullptr, nullptr, &timeout), SOCKET_ERROR);
}

TEST_F(RoutingTest, OverlappedCallsNameTheirThread) {
    char buffer[4] = {};
    WSABUF piece{4, buffer};
    DWORD flags = 0;
    OVERLAPPED overlapped{};
    ProviderReply later;
    later.pending = true;
    provider_->ReplyOnce(Op::kRecv, later);
    EXPECT_EQ(WSARecv(socket_, &piece, 1, nullptr, &flags, &overlapped, nullptr), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSA_IO_PENDING);
    DWORD bytes = 0;
    EXPECT_FALSE(WSAGetOverlappedResult(socket_, &overlapped, &bytes, FALSE, &flags));
    EXPECT_EQ(WSAGetLastError(), WSA_IO_INCOMPLETE);
    EXPECT_TRUE(provider_->Complete(&overlapped, "four"));
    EXPECT_TRUE(WSAGetOverlappedResult(socket_, &overlapped, &bytes, FALSE, &flags));
    EXPECT_EQ(bytes, 4u);
    EXPECT_EQ(std::string(buffer, 4), "four");
    EXPECT_TRUE(provider_->Calls(Op::kRecv).back().hasThreadId);
    // A thread's id is closed with the thread, the tear-down sees to it.
    std::thread([&] {
        OVERLAPPED ofThread{};
        DWORD none = 0;
        WSARecv(socket_, &piece, 1, nullptr, &none, &ofThread, nullptr);
        EXPECT_TRUE(provider_->Calls(Op::kRecv).back().hasThreadId);
    }).join();
    recv(socket_, buffer, 1, 0);
    EXPECT_FALSE(provider_->Calls(Op::kRecv).back().hasThreadId);
}

TEST_F(RoutingTest, ExtensionFunctionsAreThoseOfTheSocketsProvider) {
    const SOCKET accepting = TcpSocket();
    char output[64] = {};
    DWORD received = 1;
    EXPECT_TRUE(AcceptEx(socket_, accepting, output, 0, 32, 32, &received, nullptr));
    EXPECT_EQ(provider_->Calls(Op::kAcceptEx).at(0).otherSocket, accepting);
    provider_->ReplyOnce(Op::kAcceptEx, FailsWith(WSAECONNABORTED));
    EXPECT_FALSE(AcceptEx(socket_, accepting, output, 0, 32, 32, &received, nullptr));
    EXPECT_EQ(WSAGetLastError(), WSAECONNABORTED);
    EXPECT_TRUE(TransmitFile(socket_, nullptr, 10, 0, nullptr, nullptr, TF_DISCONNECT));
    EXPECT_EQ(provider_->Calls(Op::kTransmitFile).at(0).value, static_cast<DWORD>(TF_DISCONNECT));

    provider_->ReplyOnce(Op::kIoctl, FailsWith(WSAEOPNOTSUPP));
    EXPECT_FALSE(AcceptEx(socket_, accepting, output, 0, 32, 32, &received, nullptr));
    EXPECT_EQ(WSAGetLastError(), WSAEOPNOTSUPP);
    EXPECT_FALSE(AcceptEx(socket_ + 4000, accepting, output, 0, 32, 32, &received, nullptr));
    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);

    const std::size_t made = provider_->Calls(Op::kSocket).size();
    for (int i = 0; i < 2; ++i) {
        sockaddr* local = nullptr;
        sockaddr* remote = nullptr;
        int localSize = 0;
        int remoteSize = 0;
        GetAcceptExSockaddrs(output, 8, 20, 20, &local, &localSize, &remote, &remoteSize);
        EXPECT_EQ(reinterpret_cast<char*>(local), output + 8);
        EXPECT_EQ(reinterpret_cast<char*>(remote), output + 28);
        EXPECT_EQ(remoteSize, 16);
    }
    EXPECT_EQ(provider_->Calls(Op::kSocket).size(), made + 1) << "the parser is asked for once";
    EXPECT_EQ(provider_->OpenSockets(), 2);
}

TEST_F(RoutingTest, ProtocolInformationInBothAlphabets) {
    WSAPROTOCOL_INFOW wide = provider_->StartupInfo();
    const ProviderReply reply = Delivers(std::string(reinterpret_cast<const char*>(&wide), sizeof(wide)));
    provider_->ReplyAlways(Op::kGetSockOpt, reply);
    WSAPROTOCOL_INFOA ansi{};
    int length = sizeof(ansi) - 1;
    EXPECT_EQ(getsockopt(socket_, SOL_SOCKET, SO_PROTOCOL_INFOA, reinterpret_cast<char*>(&ansi), &length),
              SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
    EXPECT_EQ(length, static_cast<int>(sizeof(ansi)));
    EXPECT_EQ(getsockopt(socket_, SOL_SOCKET, SO_PROTOCOL_INFOA, reinterpret_cast<char*>(&ansi), &length), 0);
    EXPECT_STREQ(ansi.szProtocol, "TCP/IP");
    EXPECT_EQ(ansi.dwCatalogEntryId, winsock_host::kTcpEntry);
    EXPECT_EQ(provider_->Calls(Op::kGetSockOpt).at(0).value, static_cast<DWORD>(SO_PROTOCOL_INFOW));

    // What WSADuplicateSocketA gives opens the duplicate with WSASocketA.
    EXPECT_EQ(WSADuplicateSocketA(socket_, GetCurrentProcessId(), &ansi), 0);
    ansi.dwProviderReserved = 99;
    const SOCKET copy = WSASocketA(FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, &ansi, 0, 0);
    EXPECT_NE(copy, INVALID_SOCKET);
    EXPECT_EQ(provider_->Calls(Op::kSocket).back().info.dwProviderReserved, 99u);
    EXPECT_EQ(provider_->Calls(Op::kSocket).back().type, SOCK_STREAM);
}

}  // namespace
