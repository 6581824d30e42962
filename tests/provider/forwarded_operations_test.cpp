// The operations that only go down: with the lower socket, with the caller's own arguments, and back with the
// lower result; and the names of contexts in messages.
#include <ws2tcpip.h>

#include "platform/testing/catalog.h"
#include "tests/provider/fake_winsock.h"
#include "tests/support/callback.h"

namespace {

/// What came down: the socket, and the arguments as numbers.
struct Descent {
    SOCKET socket = INVALID_SOCKET;
    std::vector<ULONG_PTR> arguments;
};

class ForwardedOperations : public FakeSocket {
  protected:
    template <class Argument>
    static ULONG_PTR Bits(Argument argument) {
        if constexpr (std::is_pointer_v<Argument>) {
            return reinterpret_cast<ULONG_PTR>(argument);
        } else {
            return static_cast<ULONG_PTR>(argument);
        }
    }

    /// Writes the call down and fails with `lowerError_`, unless that is 0.
    template <class... Arguments>
    static bool Record(LPINT error, SOCKET s, Arguments... arguments) {
        descents_.push_back({s, {Bits(arguments)...}});
        if (lowerError_ != 0) *error = lowerError_;
        return lowerError_ == 0;
    }
    static int Status(bool succeeded) { return succeeded ? 0 : SOCKET_ERROR; }

    void SetUp() override {
        FakeSocket::SetUp();
        WSPPROC_TABLE& lower = Lower();
        lower.lpWSPEnumNetworkEvents =
            Callback([](SOCKET s, WSAEVENT event, LPWSANETWORKEVENTS events, LPINT error) {
                return Status(Record(error, s, event, events));
            });
        lower.lpWSPEventSelect = Callback([](SOCKET s, WSAEVENT event, LONG events, LPINT error) {
            return Status(Record(error, s, event, events));
        });
        lower.lpWSPGetSockName = Callback([](SOCKET s, sockaddr* name, LPINT length, LPINT error) {
            return Status(Record(error, s, name, length));
        });
        lower.lpWSPGetQOSByName = Callback([](SOCKET s, LPWSABUF name, LPQOS qos, LPINT error) -> BOOL {
            return Record(error, s, name, qos) ? TRUE : FALSE;
        });
        lower.lpWSPListen =
            Callback([](SOCKET s, int backlog, LPINT error) { return Status(Record(error, s, backlog)); });
        lower.lpWSPRecvDisconnect =
            Callback([](SOCKET s, LPWSABUF data, LPINT error) { return Status(Record(error, s, 1, data)); });
        lower.lpWSPSendDisconnect =
            Callback([](SOCKET s, LPWSABUF data, LPINT error) { return Status(Record(error, s, 2, data)); });
        lower.lpWSPShutdown =
            Callback([](SOCKET s, int how, LPINT error) { return Status(Record(error, s, how)); });
        lower.lpWSPAsyncSelect = Callback(
            [](SOCKET s, HWND, unsigned int, LONG, LPINT error) { return Status(Record(error, s)); });
    }

    static inline std::vector<Descent> descents_;
    static inline int lowerError_;
};

TEST_F(ForwardedOperations, GoDownWithTheLowerSocketAndTheCallersArguments) {
    WSABUF buffer{};
    QOS qos{};
    WSANETWORKEVENTS events{};
    sockaddr name{};
    INT length = sizeof(name);
    const HANDLE event = &events;
    const struct {
        const char* what;
        std::function<bool(SOCKET)> call;
        std::vector<ULONG_PTR> arguments;
    } rows[] = {
        {"WSPEnumNetworkEvents",
         [&](SOCKET s) { return WSPEnumNetworkEvents(s, event, &events, &error_) == 0; },
         {Bits(event), Bits(&events)}},
        {"WSPEventSelect",
         [&](SOCKET s) { return WSPEventSelect(s, event, FD_READ, &error_) == 0; },
         {Bits(event), FD_READ}},
        {"WSPGetSockName",
         [&](SOCKET s) { return WSPGetSockName(s, &name, &length, &error_) == 0; },
         {Bits(&name), Bits(&length)}},
        {"WSPGetQOSByName",
         [&](SOCKET s) { return WSPGetQOSByName(s, &buffer, &qos, &error_) != FALSE; },
         {Bits(&buffer), Bits(&qos)}},
        {"WSPListen", [&](SOCKET s) { return WSPListen(s, 17, &error_) == 0; }, {17}},
        {"WSPRecvDisconnect",
         [&](SOCKET s) { return WSPRecvDisconnect(s, &buffer, &error_) == 0; },
         {1, Bits(&buffer)}},
        {"WSPSendDisconnect",
         [&](SOCKET s) { return WSPSendDisconnect(s, &buffer, &error_) == 0; },
         {2, Bits(&buffer)}},
        {"WSPShutdown", [&](SOCKET s) { return WSPShutdown(s, SD_SEND, &error_) == 0; }, {SD_SEND}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        for (const int lowerError : {0, WSAENETDOWN}) {
            descents_.clear();
            lowerError_ = lowerError;
            EXPECT_EQ(ErrorOf(row.call(s_)), lowerError);
            ASSERT_EQ(descents_.size(), 1u);
            EXPECT_EQ(descents_[0].socket, context_->ProviderSocket);
            EXPECT_EQ(descents_[0].arguments, row.arguments);
            EXPECT_EQ(context_->RefCount, 0);
        }
        EXPECT_EQ(ErrorOf(row.call(0x77)), WSAENOTSOCK);
        EXPECT_EQ(descents_.size(), 1u) << "nothing came down for a socket that is none";
    }
}

TEST_F(ForwardedOperations, NoWindowIsToldOfTheLowerSocket) {
    descents_.clear();
    EXPECT_EQ(ErrorOf(WSPAsyncSelect(s_, nullptr, 0, FD_READ, &error_) == 0), WSAEOPNOTSUPP);
    EXPECT_EQ(ErrorOf(WSPAsyncSelect(0x77, nullptr, 0, FD_READ, &error_) == 0), WSAENOTSOCK);
    EXPECT_TRUE(descents_.empty());
}

// With Winsock, which writes addresses, started or not.
TEST_F(ForwardedOperations, ContextsAreDescribedInOneLine) {
    const sockaddr_in four = MakeAddress("203.0.113.10", 80);
    sockaddr_in6 six{};
    six.sin6_family = AF_INET6;
    six.sin6_port = htons(8080);
    six.sin6_addr.s6_addr[0] = 0x20;
    six.sin6_addr.s6_addr[1] = 0x01;
    six.sin6_addr.s6_addr[15] = 9;
    const struct {
        const void* destination;
        int length;
        bool started;
        const char* text;
    } rows[] = {{&four, sizeof(four), false, "[<undefined>]:[80]"},
                {&four, sizeof(four), true, "[203.0.113.10:80]:[80]"},
                {&six, sizeof(six), true, "[[2001::9]:8080]:[8080]"},
                {nullptr, 0, true, "[<undefined>]:[0]"}};
    context_->Protocol = 1;
    context_->ReportTraffic = context_->Split = TRUE;
    winsock_host::ResetCatalogForTest();
    winsock_host::DropCatalog();
    for (const auto& row : rows) {
        WSADATA data;
        if (row.started) {
            ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
        }
        context_->DestinationAddress.Store(row.destination, row.length);
        SetLastError(4711);
        EXPECT_EQ(DescribeContext(context_).c_str(), "Connection[1] [relay:0,ly:4096,pv:20480,spy:-1] - " +
                                                         std::string(row.text) +
                                                         " - [prot:1] [flags:0,1,0,0,0,1,0]");
        EXPECT_EQ(GetLastError(), 4711u) << "a message changes nothing";
        if (row.started) {
            EXPECT_EQ(WSACleanup(), 0);
        }
    }
    EXPECT_STREQ(DescribeContext(nullptr).c_str(), "Context is empty");
}

}  // namespace
