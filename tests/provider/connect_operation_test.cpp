// What becomes of a connect for each verdict.
#include "tests/provider/fake_winsock.h"
#include "tests/support/callback.h"
#include "tests/support/edge_of_memory.h"

namespace {

const std::string kDestination = "203.0.113.10:80 16";

class ConnectOperation : public FakeSocket {
  protected:
    /// The error of the connect, or 0.
    int ConnectTo(SOCKET s, const void* name, int length) {
        WSASetLastError(0);
        return ErrorOf(WSPConnect(s, static_cast<const sockaddr*>(name), length, nullptr, nullptr, nullptr,
                                  nullptr, &error_) == 0);
    }
    int Connect() { return ConnectTo(s_, &name_, sizeof(name_)); }

    sockaddr_in name_ = MakeAddress("203.0.113.10", 80);
};

TEST_F(ConnectOperation, AllowedGoesToTheDestinationAndIsRemembered) {
    EXPECT_EQ(Connect(), 0);
    EXPECT_EQ(Fake().connected, (std::vector<std::string>{kDestination}));
    EXPECT_EQ(context_->DestinationAddress.Port(), 80);
    EXPECT_EQ(context_->DestinationAddress.Family(), AF_INET);
    EXPECT_EQ(context_->DestinationAddressLength, 16);
    EXPECT_EQ(context_->LocalAddress.Port(), 7777);
    Fake().connectError = WSAEWOULDBLOCK;
    EXPECT_EQ(Connect(), WSAEWOULDBLOCK) << "the lower result is the application's";
}

TEST_F(ConnectOperation, RedirectedGoesElsewhereAndPeerNameKeepsTheDestination) {
    Fake().verdict = [](SocketContext* context, ConnectTarget* target) {
        const sockaddr_in other = MakeAddress("198.51.100.20", 8080);
        std::memcpy(&target->name, &other, sizeof(other));
        context->Split = TRUE;
        return true;
    };
    EXPECT_EQ(Connect(), 0);
    EXPECT_EQ(Fake().connected, (std::vector<std::string>{"198.51.100.20:8080 16"}));

    sockaddr_in peer{};
    auto* const name = reinterpret_cast<sockaddr*>(&peer);
    int length = sizeof(peer) - 1;
    EXPECT_EQ(ErrorOf(WSPGetPeerName(s_, name, &length, &error_) == 0), WSAEFAULT);
    EXPECT_EQ(length, 16) << "the length that is needed";
    EXPECT_EQ(WSPGetPeerName(s_, name, &length, &error_), 0);
    EXPECT_EQ(std::memcmp(&peer, &name_, sizeof(peer)), 0);
    length = 0;
    EXPECT_EQ(ErrorOf(WSPGetPeerName(s_, nullptr, &length, &error_) == 0), WSAEFAULT);
    EXPECT_EQ(length, 16);
}

TEST_F(ConnectOperation, SplitGoesToTheRelayOrIsUndone) {
    Fake().verdict = [](SocketContext*, ConnectTarget* target) {
        target->way = ConnectTarget::Way::kThroughRelay;
        return true;
    };
    EXPECT_EQ(Connect(), WSAEFAULT) << "the split failed";
    EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
    EXPECT_TRUE(Fake().connected.empty());
    EXPECT_EQ(context_->LocalAddress.Port(), 0);

    Fake().split = [](SocketContext*, ConnectTarget* target) {
        const sockaddr_in relay = MakeAddress("127.0.0.1", 48300);
        std::memcpy(&target->name, &relay, sizeof(relay));
        target->length = 128;
        return true;
    };
    struct {
        int lowerError;
        int error;
        int abandoned;
        unsigned short localPort;
    } const cases[] = {{0, 0, 0, 7777},
                       {WSAEWOULDBLOCK, WSAEWOULDBLOCK, 0, 7777},
                       {WSA_IO_PENDING, WSAEWOULDBLOCK, 0, 7777},
                       {FakeState::kUnnamed, WSAEWOULDBLOCK, 0, 7777},
                       {WSAECONNRESET, WSAECONNRESET, 1, 0}};
    for (const auto& row : cases) {
        Fake().connected.clear();
        context_->LocalAddress.Store(nullptr, 0);
        Fake().connectError = row.lowerError;
        error_ = WSAEISCONN;  // what an earlier call has left
        EXPECT_EQ(Connect(), row.error);
        EXPECT_EQ(Fake().connected, (std::vector<std::string>{"127.0.0.1:48300 128"}));
        EXPECT_EQ(Fake().abandonedSplits, row.abandoned) << row.lowerError;
        EXPECT_EQ(context_->LocalAddress.Port(), row.localPort) << row.lowerError;
    }
}

TEST_F(ConnectOperation, NamesThatCantBeTakenAreRefusedBeforeAnyoneIsAsked) {
    bool asked = false;
    Fake().verdict = [&](SocketContext*, ConnectTarget*) { return asked = true; };
    char name[200] = {};
    name[0] = AF_INET;
    for (const int length : {129, 200, -1})
        EXPECT_EQ(ConnectTo(s_, name, length), WSAEFAULT) << length;
    // A name on the last bytes before memory that can't be read.
    const EdgeOfMemory memory;
    EXPECT_EQ(ConnectTo(s_, memory.LastBytes(8), 16), WSAEFAULT);
    EXPECT_EQ(ConnectTo(s_, nullptr, 16), WSAEFAULT);
    EXPECT_FALSE(asked);
    EXPECT_EQ(ConnectTo(INVALID_SOCKET, nullptr, 0), WSAENOTSOCK);
}

TEST_F(ConnectOperation, BindIsRefusedByAVerdict) {
    Lower().lpWSPBind = Callback([](SOCKET, const sockaddr* name, int, LPINT) {
        EXPECT_NE(name, nullptr);
        return 0;
    });
    auto* const name = reinterpret_cast<sockaddr*>(&name_);
    EXPECT_EQ(WSPBind(s_, name, sizeof(name_), &error_), 0);
    Fake().bound = [](SocketContext* context) { context->Blocked = TRUE; };
    Lower().lpWSPBind = nullptr;  // not called
    EXPECT_EQ(ErrorOf(WSPBind(s_, name, sizeof(name_), &error_) == 0), WSAECONNABORTED);
}

}  // namespace
