// The operations that only go down: with the lower socket, with the caller's own arguments, and back with the
// lower result; and the names of contexts in messages.
#include <ws2tcpip.h>

#include <tuple>

#include "platform/testing/catalog.h"
#include "tests/provider/fake_winsock.h"

namespace {

/// What came down: the arguments behind the socket as numbers.
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

    /// An argument unlike all others.
    template <class Argument>
    static Argument Numbered() {
        lastArgument_ += 0x1000;
        if constexpr (std::is_pointer_v<Argument>) {
            return reinterpret_cast<Argument>(lastArgument_);
        } else {
            return static_cast<Argument>(lastArgument_);
        }
    }

    /// Writes the call down and gives the lower result, with the lower error where that goes.
    template <class Result, class... Arguments>
    static Result WSPAPI Record(SOCKET s, Arguments... arguments) {
        descents_.push_back({s, {Bits(arguments)...}});
        *reinterpret_cast<LPINT>(descents_.back().arguments.back()) = lowerError_;
        return static_cast<Result>(lowerResult_);
    }

    template <class Result, class... Arguments>
    void ExpectForwarded(Result(WSPAPI*& below)(SOCKET, Arguments...),
                         Result(WSPAPI* operation)(SOCKET, Arguments...), int success, int failure) {
        below = Record<Result, Arguments...>;
        std::tuple<Arguments...> arguments{Numbered<Arguments>()...};
        std::get<sizeof...(Arguments) - 1>(arguments) = &error_;
        const auto call = [&](SOCKET s) {
            return std::apply([&](auto... each) { return operation(s, each...); }, arguments);
        };
        for (const int lowerError : {0, WSAENETDOWN}) {
            descents_.clear();
            lowerError_ = lowerError;
            lowerResult_ = lowerError == 0 ? success : failure;
            EXPECT_EQ(call(s_), lowerResult_);
            EXPECT_EQ(std::exchange(error_, 0), lowerError);
            ASSERT_EQ(descents_.size(), 1u);
            EXPECT_EQ(descents_[0].socket, context_->ProviderSocket);
            EXPECT_EQ(
                descents_[0].arguments,
                std::apply([](auto... each) { return std::vector<ULONG_PTR>{Bits(each)...}; }, arguments));
            EXPECT_EQ(context_->RefCount, 0);
        }
        EXPECT_EQ(call(0x77), failure);
        EXPECT_EQ(std::exchange(error_, 0), WSAENOTSOCK);
        EXPECT_EQ(descents_.size(), 1u) << "nothing came down for a socket that is none";
    }

    static inline std::vector<Descent> descents_;
    static inline ULONG_PTR lastArgument_ = 0;
    static inline int lowerError_;
    static inline int lowerResult_;
};

TEST_F(ForwardedOperations, GoDownWithTheLowerSocketAndTheCallersArguments) {
    WSPPROC_TABLE& lower = Lower();
    ExpectForwarded(lower.lpWSPEnumNetworkEvents, WSPEnumNetworkEvents, 0, SOCKET_ERROR);
    ExpectForwarded(lower.lpWSPEventSelect, WSPEventSelect, 0, SOCKET_ERROR);
    ExpectForwarded(lower.lpWSPGetSockName, WSPGetSockName, 0, SOCKET_ERROR);
    ExpectForwarded(lower.lpWSPGetQOSByName, WSPGetQOSByName, TRUE, FALSE);
    ExpectForwarded(lower.lpWSPListen, WSPListen, 0, SOCKET_ERROR);
    ExpectForwarded(lower.lpWSPRecvDisconnect, WSPRecvDisconnect, 0, SOCKET_ERROR);
    ExpectForwarded(lower.lpWSPSendDisconnect, WSPSendDisconnect, 0, SOCKET_ERROR);
    ExpectForwarded(lower.lpWSPShutdown, WSPShutdown, 0, SOCKET_ERROR);
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
