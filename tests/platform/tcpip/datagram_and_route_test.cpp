// Datagrams, and destinations that are not of this machine.
#include <thread>

#include "platform/testing/clock.h"
#include "platform/testing/machine.h"
#include "tests/platform/tcpip/base_provider.h"

namespace {

class RouteTest : public BaseProvider {
  protected:
    void TearDown() override {
        platform::SetMachineForTest(MachineWithRoutes({}));
        BaseProvider::TearDown();
    }

    void RouteTo(const char* destination, std::uint16_t port, const sockaddr_in* target) {
        platform::MachineRoute route;
        route.destinationAddress = destination;
        route.destinationPort = port;
        route.blackHole = target == nullptr;
        if (target != nullptr) route.targetAddress = "127.0.0.1";
        if (target != nullptr) route.targetPort = static_cast<std::uint16_t>(PortOf(*target));
        platform::SetMachineForTest(MachineWithRoutes({route}));
    }

    int SendTo(SOCKET s, const std::string& text, const sockaddr_in& to) {
        WSABUF buffer = {static_cast<ULONG>(text.size()), const_cast<char*>(text.data())};
        DWORD sent = 0;
        const auto* name = reinterpret_cast<const sockaddr*>(&to);
        return CALL(SendTo, s, &buffer, 1, &sent, 0, name, sizeof(to), nullptr, nullptr, nullptr);
    }

    /// "text from address", or "error N".
    std::string ReceiveFrom(SOCKET s, ULONG size = 100) {
        std::string text(size, '\0');
        WSABUF buffer = {size, &text[0]};
        DWORD received = 0, flags = 0;
        sockaddr_in from = {};
        int length = sizeof(from);
        const int result = CALL(RecvFrom, s, &buffer, 1, &received, &flags,
                                reinterpret_cast<sockaddr*>(&from), &length, nullptr, nullptr, nullptr);
        const bool isCut = result != 0 && Error == WSAEMSGSIZE;
        const bool isMarked = flags == MSG_PARTIAL && received == size;
        text.resize(isCut ? size : received);
        const std::string told = text + " from " + Text(from);
        if (result == 0) return told;
        if (isCut && (isMarked || !Keeps(Documented::kPartialDatagramIsMarked))) return told + " cut";
        return "error " + std::to_string(Error);
    }
};

TEST_F(RouteTest, DatagramsKeepTheirBoundariesAndTheirSender) {
    const SOCKET a = Datagram();
    if (Keeps(Documented::kUnboundReceiveFails)) {
        EXPECT_EQ(ReceiveFrom(a), "error 10022");
    }
    const SOCKET b = Bound(Datagram());
    EXPECT_EQ(Send(a, "x"), SOCKET_ERROR);
    if (Keeps(Documented::kSendNeedsAConnection)) {
        EXPECT_EQ(Error, WSAENOTCONN);
    }
    ASSERT_EQ(SendTo(a, "first", NameOf(b)), 0) << Error;
    ASSERT_EQ(SendTo(a, "second", NameOf(b)), 0);
    const std::string sender = "127.0.0.1:" + std::to_string(PortOf(NameOf(a)));
    EXPECT_EQ(ReceiveFrom(b, 3), "fir from " + sender + " cut");
    EXPECT_EQ(ReceiveFrom(b), "second from " + sender);
    ASSERT_EQ(Connect(a, NameOf(b)), 0);
    EXPECT_EQ(Send(a, ""), 0);
    EXPECT_EQ(ReceiveFrom(b), " from " + sender);
    Close(b);
    EXPECT_EQ(Send(a, "lost"), 4);
    if (Keeps(Documented::kUnreachablePortIsTold)) {
        EXPECT_EQ(ReceiveFrom(a), "error 10054");
    }
}

TEST_F(RouteTest, NothingLeavesTheMachine) {
    const SOCKET s = Datagram();
    for (const char* address : {"198.51.100.1", "255.255.255.255", "10.0.0.1", "239.1.2.3"}) {
        EXPECT_EQ(SendTo(s, "x", At(address, 53)), SOCKET_ERROR);
        EXPECT_EQ(Error, WSAENETUNREACH) << address;
        EXPECT_EQ(Connect(s, At(address, 53)), SOCKET_ERROR);
        EXPECT_EQ(Error, WSAENETUNREACH) << address;
    }
    // Not even when a route's target says so.
    platform::MachineRoute route;
    route.destinationAddress = "203.0.113.10";
    route.targetAddress = "198.51.100.1";
    route.targetPort = 80;
    platform::SetMachineForTest(MachineWithRoutes({route}));
    EXPECT_EQ(Connect(Stream(), At("203.0.113.10", 80)), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAENETUNREACH);
}

TEST_F(RouteTest, RoutedConnectionShowsThePublicAddress) {
    sockaddr_in target;
    const SOCKET listener = Listener(&target);
    RouteTo("203.0.113.10", 80, &target);
    const SOCKET s = Stream();
    ASSERT_EQ(Connect(s, At("203.0.113.10", 80)), 0) << Error;
    const SOCKET server = Accept(listener);
    EXPECT_EQ(Send(s, "routed"), 6);
    EXPECT_EQ(Receive(server), "routed");
    sockaddr_in name = {};
    int length = sizeof(name);
    ASSERT_EQ(CALL(GetPeerName, s, reinterpret_cast<sockaddr*>(&name), &length), 0);
    EXPECT_EQ(Text(name), "203.0.113.10:80");
    EXPECT_EQ(Connect(Stream(), At("203.0.113.10", 81)), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAENETUNREACH);
}

TEST_F(RouteTest, AnswerToARoutedDatagramComesFromThePublicAddress) {
    const SOCKET server = Bound(Datagram());
    const sockaddr_in target = NameOf(server);
    RouteTo("203.0.113.53", 0, &target);
    const SOCKET s = Datagram();
    ASSERT_EQ(SendTo(s, "query", At("203.0.113.53", 53)), 0);
    EXPECT_EQ(ReceiveFrom(server).substr(0, 5), "query");
    ASSERT_EQ(SendTo(server, "reply", At("127.0.0.1", PortOf(NameOf(s)))), 0);
    EXPECT_EQ(ReceiveFrom(s), "reply from 203.0.113.53:53");
}

#ifndef _WIN32
// The system's own provider waits in real time.
TEST_F(RouteTest, BlackHoleAnswersNobodyUntilTheTimeOut) {
    RouteTo("203.0.113.99", 0, nullptr);
    const sockaddr_in nowhere = At("203.0.113.99", 443);
    const SOCKET pending = Stream();
    ASSERT_EQ(SetNonBlocking(pending, 1), 0);
    platform::ScopedClockRate stopped(0);
    EXPECT_EQ(Connect(pending, nowhere), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEWOULDBLOCK);
    EXPECT_EQ(Connect(pending, nowhere), SOCKET_ERROR);
    EXPECT_EQ(Error, WSAEALREADY);
    const SOCKET blocking = Stream();
    int blockingError = 0;
    std::thread waiter([&] {
        Connect(blocking, nowhere);
        blockingError = Error;
    });
    // The reactor, for the pending one, and the blocked thread.
    ASSERT_TRUE(platform::WaitForTimedWaits(2));
    platform::AdvanceClock(20000);
    fd_set write = {1, {pending}};
    fd_set except = write;
    timeval none = {0, 0};
    EXPECT_EQ(CALL(Select, 0, nullptr, &write, &except, &none), 0);
    platform::AdvanceClock(1001);
    waiter.join();
    EXPECT_EQ(blockingError, WSAETIMEDOUT);
    EXPECT_TRUE(WaitFor(pending, 'e'));
    EXPECT_EQ(GetNumber(pending, SOL_SOCKET, SO_ERROR), WSAETIMEDOUT);
}

TEST_F(RouteTest, CloseEndsAConnectIntoTheBlackHole) {
    RouteTo("203.0.113.99", 0, nullptr);
    const sockaddr_in nowhere = At("203.0.113.99", 443);
    platform::ScopedClockRate stopped(0);
    const SOCKET s = Stream();
    int error = 0;
    std::thread waiter([&] {
        Connect(s, nowhere);
        error = Error;
    });
    ASSERT_TRUE(platform::WaitForTimedWaits(1));
    Close(s);
    waiter.join();
    EXPECT_EQ(error, WSAEINTR);
}
#endif

}  // namespace
