// Options, control codes, select, time-outs, texts: what is asked of a socket rather than sent through it.
#include <winsock2.h>

#include <mstcpip.h>

#include <cstring>
#include <thread>

#include "platform/testing/clock.h"
#include "tests/platform/tcpip/base_provider.h"

namespace {

using OptionTest = BaseProvider;

#ifndef TCP_KEEPALIVE
constexpr int TCP_KEEPALIVE = 3;  // not every toolchain's headers have it
#endif

TEST_F(OptionTest, ValuesReadBackAsTheyWereSet) {
    const SOCKET stream = Stream();
    const SOCKET datagram = Datagram();
    const struct {
        SOCKET s;
        int level, name, value, initial;
    } rows[] = {
        {stream, SOL_SOCKET, SO_SNDBUF, 32768, -1},      {stream, SOL_SOCKET, SO_RCVBUF, 32768, -1},
        {stream, SOL_SOCKET, SO_SNDTIMEO, 10000, 0},     {stream, SOL_SOCKET, SO_RCVTIMEO, 1500, 0},
        {stream, SOL_SOCKET, SO_KEEPALIVE, 1, 0},        {stream, IPPROTO_TCP, TCP_NODELAY, 1, 0},
        {stream, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, 1, 0}, {datagram, SOL_SOCKET, SO_BROADCAST, 1, 0},
        {datagram, SOL_SOCKET, SO_REUSEADDR, 1, 0},      {datagram, IPPROTO_IP, IP_DONTFRAGMENT, 1, 0},
    };
    for (const auto& row : rows) {
        if (row.initial >= 0) {
            EXPECT_EQ(GetNumber(row.s, row.level, row.name), row.initial) << row.name;
        }
        EXPECT_EQ(SetNumber(row.s, row.level, row.name, row.value), 0) << row.name << " " << Error;
        EXPECT_EQ(GetNumber(row.s, row.level, row.name), row.value) << row.name;
    }
    const linger wait = {1, 7};
    linger read = {};
    int length = sizeof(read);
    ASSERT_EQ(
        CALL(SetSockOpt, stream, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&wait), sizeof(wait)),
        0);
    ASSERT_EQ(CALL(GetSockOpt, stream, SOL_SOCKET, SO_LINGER, reinterpret_cast<char*>(&read), &length), 0);
    EXPECT_EQ(read.l_linger, 7);
    EXPECT_EQ(GetNumber(stream, SOL_SOCKET, SO_DONTLINGER), 0);
    // One byte is enough for a flag.
    char off = 0;
    EXPECT_EQ(CALL(SetSockOpt, stream, IPPROTO_TCP, TCP_NODELAY, &off, 1), 0);
    EXPECT_EQ(GetNumber(stream, IPPROTO_TCP, TCP_NODELAY), 0);
    EXPECT_EQ(GetNumber(datagram, SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
    EXPECT_EQ(GetNumber(datagram, SOL_SOCKET, SO_MAX_MSG_SIZE), 65507);
    sockaddr_in name;
    EXPECT_EQ(GetNumber(Listener(&name), SOL_SOCKET, SO_ACCEPTCONN), 1);
    EXPECT_EQ(GetNumber(stream, SOL_SOCKET, SO_ACCEPTCONN), 0);
}

TEST_F(OptionTest, WrongOptionsFailAsOnWindows) {
    const SOCKET stream = Stream();
    const SOCKET datagram = Datagram();
    const struct {
        SOCKET s;
        int level, name, length, error;
        bool needsFit;
    } rows[] = {
        {stream, SOL_SOCKET, 0x7777, 4, WSAENOPROTOOPT, false},
        {stream, 77, 1, 4, WSAEINVAL, false},
        {stream, SOL_SOCKET, SO_BROADCAST, 4, WSAENOPROTOOPT, true},
        {datagram, IPPROTO_TCP, TCP_NODELAY, 4, WSAENOPROTOOPT, true},
        {stream, SOL_SOCKET, SO_LINGER, 3, WSAEFAULT, false},
        {stream, SOL_SOCKET, SO_UPDATE_CONNECT_CONTEXT, 0, WSAENOTCONN, true},
        {stream, SOL_SOCKET, SO_UPDATE_ACCEPT_CONTEXT, sizeof(SOCKET), WSAENOTSOCK, true},
    };
    const char value[8] = {1};
    for (const auto& row : rows) {
        if (row.needsFit && !Keeps(Documented::kOptionsFitTheirSocket)) continue;
        EXPECT_EQ(CALL(SetSockOpt, row.s, row.level, row.name, value, row.length), SOCKET_ERROR) << row.name;
        EXPECT_EQ(Error, row.error) << row.name;
    }
    EXPECT_EQ(SetNumber(stream, SOL_SOCKET, SO_REUSEADDR, 1), 0);
    EXPECT_EQ(SetNumber(stream, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, 1), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEINVAL);
}

TEST_F(OptionTest, ProtocolInformationNeedsRoomForAllOfIt) {
    const SOCKET s = Stream();
    WSAPROTOCOL_INFOW info = {};
    int length = sizeof(info);
    ASSERT_EQ(CALL(GetSockOpt, s, SOL_SOCKET, SO_PROTOCOL_INFOW, reinterpret_cast<char*>(&info), &length), 0);
    EXPECT_EQ(info.dwCatalogEntryId, 1001u);
    --length;
    EXPECT_EQ(CALL(GetSockOpt, s, SOL_SOCKET, SO_PROTOCOL_INFOW, reinterpret_cast<char*>(&info), &length),
              SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEFAULT);
}

TEST_F(OptionTest, ControlCodes) {
    SOCKET client, server;
    Connect(&client, &server);
    ASSERT_EQ(Send(client, "12345"), 5);
    EXPECT_TRUE(WaitFor(server, 'r'));
    ULONG bytes = 0;
    DWORD returned = 0;
    ASSERT_EQ(CALL(Ioctl, server, FIONREAD, nullptr, 0, &bytes, 4, &returned, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(bytes, 5u);
    EXPECT_EQ(returned, 4u);
    tcp_keepalive alive = {1, 30000, 1000};
    EXPECT_EQ(CALL(Ioctl, server, SIO_KEEPALIVE_VALS, &alive, sizeof(alive), nullptr, 0, &returned, nullptr,
                   nullptr, nullptr),
              0);
    EXPECT_EQ(GetNumber(server, SOL_SOCKET, SO_KEEPALIVE), 1);
    if (Keeps(Documented::kKeepAliveTimeIsRead)) {
        EXPECT_EQ(GetNumber(server, IPPROTO_TCP, TCP_KEEPALIVE), 30);
    }
    GUID id = WSAID_CONNECTEX;
    void* function = nullptr;
    const auto ask = [&](DWORD inLength, DWORD outLength) {
        return CALL(Ioctl, server, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, inLength, &function, outLength,
                    &returned, nullptr, nullptr, nullptr);
    };
    EXPECT_EQ(ask(15, sizeof(function)), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEFAULT);
    EXPECT_EQ(ask(16, sizeof(function) - 1), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEFAULT);
    id.Data1 ^= 1;
    EXPECT_EQ(ask(16, sizeof(function)), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEINVAL);
    EXPECT_EQ(CALL(Ioctl, server, 0x48001234, nullptr, 0, nullptr, 0, &returned, nullptr, nullptr, nullptr),
              SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEOPNOTSUPP);
}

TEST_F(OptionTest, SelectReportsWhatIsReadyAndNothingElse) {
    SOCKET client, server;
    Connect(&client, &server);
    const SOCKET quiet = Bound(Datagram());
    const SOCKET unconnected = Stream();
    ASSERT_EQ(Send(client, "x"), 1);
    ASSERT_TRUE(WaitFor(server, 'r'));
    fd_set read = {4, {quiet, server, client, unconnected}};
    fd_set write = {3, {unconnected, server, quiet}};
    fd_set except = {2, {server, unconnected}};
    ASSERT_EQ(CALL(Select, 0, &read, &write, &except, nullptr), 3);
    ASSERT_EQ(read.fd_count, 1u);
    EXPECT_EQ(read.fd_array[0], server);
    ASSERT_EQ(write.fd_count, 2u);
    EXPECT_EQ(write.fd_array[0], server);
    EXPECT_EQ(write.fd_array[1], quiet);
    EXPECT_EQ(except.fd_count, 0u);
}

TEST_F(OptionTest, SelectChecksItsArguments) {
    const SOCKET s = Bound(Datagram());
    timeval none = {0, 0};
    fd_set empty = {};
    EXPECT_EQ(CALL(Select, 0, nullptr, nullptr, nullptr, &none), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEINVAL);
    EXPECT_EQ(CALL(Select, 0, &empty, nullptr, nullptr, &none), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEINVAL);
    fd_set foreign = {2, {s, 0x7FFFFFF0}};
    EXPECT_EQ(CALL(Select, 0, &foreign, nullptr, nullptr, &none), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAENOTSOCK);
    // A set of a program that was compiled for larger ones.
    struct {
        u_int count;
        SOCKET sockets[FD_SETSIZE + 36];
    } large = {};
    for (SOCKET& socket : large.sockets)
        socket = Bound(Datagram());
    large.count = FD_SETSIZE + 36;
    EXPECT_EQ(CALL(Select, 0, nullptr, reinterpret_cast<fd_set*>(&large), nullptr, nullptr), FD_SETSIZE + 36);
}

TEST_F(OptionTest, SelectEndsByThePlatformClock) {
    SOCKET client, server;
    Connect(&client, &server);
    const platform::ScopedClockRate stopped(0);
    int result = 9;
    std::thread select([&] {
        timeval ten = {10, 0};
        fd_set read = {1, {client}};
        result = CALL(Select, 0, &read, nullptr, nullptr, &ten);
    });
    const bool waits = platform::WaitForTimedWaits(1);
    platform::AdvanceClock(10000);
    select.join();
    EXPECT_TRUE(waits);
    EXPECT_EQ(result, 0);
}

#ifndef _WIN32
// The system's own provider waits in real time.
TEST_F(OptionTest, TimeOutsEndByThePlatformClock) {
    SOCKET client, server;
    Connect(&client, &server);
    SetNumber(client, SOL_SOCKET, SO_RCVTIMEO, 10000);
    SetNumber(client, SOL_SOCKET, SO_SNDTIMEO, 10000);
    SetNumber(client, SOL_SOCKET, SO_SNDBUF, 4096);
    platform::ScopedClockRate stopped(0);
    std::string received;
    int sendError = 0;
    std::thread receive([&] { received = Receive(client, 1); });
    std::thread send([&] {
        Send(client, std::string(32 << 20, 'x'));
        sendError = Error;
    });
    const bool wait = platform::WaitForTimedWaits(2);
    platform::AdvanceClock(10000);
    receive.join();
    send.join();
    EXPECT_TRUE(wait);
    EXPECT_EQ(received, "error 10060");
    EXPECT_EQ(sendError, WSAETIMEDOUT);
    // Data that is there, or comes in time, is received as ever.
    ASSERT_EQ(Send(server, "ab"), 2);
    EXPECT_EQ(Receive(client, 1), "a");
    EXPECT_EQ(Receive(client, 1), "b");
}
#endif

TEST_F(OptionTest, AddressesAsText) {
    const struct {
        const char* text;
        int family;
        const char* formatted;  // null: no address
    } rows[] = {
        {"127.0.0.1", AF_INET, "127.0.0.1"},
        {"203.0.113.10:65535", AF_INET, "203.0.113.10:65535"},
        {"1.2.3.4:65536", AF_INET, nullptr},
        {"[::1]:80", AF_INET6, "[::1]:80"},
        {"2001:DB8:0:0:1:0:0:1", AF_INET6, "2001:db8::1:0:0:1"},
        {"fe80::1%7", AF_INET6, "fe80::1%7"},
        {"::2:3", AF_INET6, "::0.2.0.3"},
        {"64:ff9b::1.2.3.4", AF_INET6, "64:ff9b::102:304"},
        {"::1:80x", AF_INET6, nullptr},
    };
    for (const auto& row : rows) {
        std::basic_string<WCHAR> text(row.text, row.text + std::strlen(row.text));
        sockaddr_storage name = {};
        int length = sizeof(name);
        const int result =
            CALL(StringToAddress, &text[0], row.family, nullptr, reinterpret_cast<sockaddr*>(&name), &length);
        EXPECT_EQ(result, row.formatted == nullptr ? SOCKET_ERROR : 0) << row.text;
        if (row.formatted == nullptr || result != 0) continue;
        WCHAR formatted[80];
        DWORD size = 80;
        ASSERT_EQ(CALL(AddressToString, reinterpret_cast<sockaddr*>(&name), static_cast<DWORD>(length),
                       nullptr, formatted, &size),
                  0);
        const std::basic_string<WCHAR> shown(formatted);
        EXPECT_EQ(std::string(shown.begin(), shown.end()), row.formatted);
        EXPECT_EQ(size, shown.size() + 1);
        size -= 1;
        EXPECT_EQ(CALL(AddressToString, reinterpret_cast<sockaddr*>(&name), static_cast<DWORD>(length),
                       nullptr, formatted, &size),
                  SOCKET_ERROR);
        EXPECT_EQ(Error, WSAEFAULT);
        EXPECT_EQ(size, shown.size() + 1);
    }
}

TEST_F(OptionTest, DuplicateKeepsTheSocketOpen) {
    SOCKET client, server;
    Connect(&client, &server);
    WSAPROTOCOL_INFOW info = {};
    EXPECT_EQ(CALL(DuplicateSocket, client, 0x7FFFFFF0, &info), SOCKET_ERROR) << "no such process";
    ASSERT_EQ(CALL(DuplicateSocket, client, GetCurrentProcessId(), &info), 0);
    const SOCKET twin = CALL(Socket, AF_INET, SOCK_STREAM, IPPROTO_TCP, &info, 0, WSA_FLAG_OVERLAPPED);
    ASSERT_NE(twin, INVALID_SOCKET);
    EXPECT_NE(twin, client);
    if (Keeps(Documented::kDuplicatesAreMadeOnce)) {
        EXPECT_EQ(CALL(Socket, AF_INET, SOCK_STREAM, IPPROTO_TCP, &info, 0, WSA_FLAG_OVERLAPPED),
                  INVALID_SOCKET);
    }
    Close(client);
    EXPECT_EQ(Send(twin, "still here"), 10);
    EXPECT_EQ(Receive(server), "still here");
    Close(twin);
    EXPECT_EQ(Receive(server), "");
}

TEST_F(OptionTest, LastCleanUpClosesEverythingAndTheModuleCanComeBack) {
    SOCKET client, server;
    Connect(&client, &server);
    Unload();
    Load();
    Connect(&client, &server);
    EXPECT_EQ(Send(client, "again"), 5);
    EXPECT_EQ(Receive(server), "again");
    int error = 0;
    const WSPPROC_TABLE table = Table;
    EXPECT_EQ(table.lpWSPCleanup(&error), 0);
    EXPECT_EQ(table.lpWSPCleanup(&error), SOCKET_ERROR);
    EXPECT_EQ(error, WSANOTINITIALISED);
    WSAPROTOCOL_INFOW info = Protocol(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    EXPECT_EQ(CALL(Socket, AF_INET, SOCK_STREAM, IPPROTO_TCP, &info, 0, 0), INVALID_SOCKET);
    EXPECT_EQ(Error, WSANOTINITIALISED);
    Unload(false);
}

}  // namespace
