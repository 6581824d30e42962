// What becomes of a connect for each verdict.
#include "tests/provider/fake_winsock.h"
#include "tests/support/callback.h"
#include "tests/support/edge_of_memory.h"

namespace {

const std::string kDestination = "203.0.113.10:80 16";

class ConnectOperation : public FakeWinsock {
  protected:
    void SetUp() override {
        FakeWinsock::SetUp();
        s_ = MakeSocket();
        context_ = ContextOf(s_);
        name_ = MakeAddress("203.0.113.10", 80);
    }
    void TearDown() override {
        Close(s_);
        FakeWinsock::TearDown();
    }

    /// The error of the connect, or 0.
    int Connect(int length = sizeof(sockaddr_in)) {
        error_ = 0;
        WSASetLastError(0);
        const int result = WSPConnect(s_, reinterpret_cast<sockaddr*>(&name_), length, nullptr, nullptr,
                                      nullptr, nullptr, &error_);
        EXPECT_EQ(result, error_ == 0 ? 0 : SOCKET_ERROR);
        return error_;
    }

    SOCKET s_ = INVALID_SOCKET;
    SocketContext* context_ = nullptr;
    sockaddr_in name_{};
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

TEST_F(ConnectOperation, BlockedIsRefusedWithoutALowerConnect) {
    Fake().verdict = [](SocketContext* context, ConnectTarget* target, int*) {
        context->Blocked = TRUE;
        target->way = ConnectTarget::Way::kRefused;
        return true;
    };
    EXPECT_EQ(Connect(), WSAECONNREFUSED);
    EXPECT_EQ(WSAGetLastError(), WSAECONNREFUSED);
    EXPECT_TRUE(Fake().connected.empty());
}

TEST_F(ConnectOperation, RedirectedGoesElsewhereAndPeerNameKeepsTheDestination) {
    Fake().verdict = [](SocketContext* context, ConnectTarget* target, int*) {
        const sockaddr_in other = MakeAddress("198.51.100.20", 8080);
        std::memcpy(&target->name, &other, sizeof(other));
        context->Split = TRUE;
        return true;
    };
    EXPECT_EQ(Connect(), 0);
    EXPECT_EQ(Fake().connected, (std::vector<std::string>{"198.51.100.20:8080 16"}));

    sockaddr_in peer{};
    int length = sizeof(peer) - 1;
    EXPECT_EQ(WSPGetPeerName(s_, reinterpret_cast<sockaddr*>(&peer), &length, &error_), SOCKET_ERROR);
    EXPECT_EQ(error_, WSAEFAULT);
    EXPECT_EQ(length, 16) << "the length that is needed";
    EXPECT_EQ(WSPGetPeerName(s_, reinterpret_cast<sockaddr*>(&peer), &length, &error_), 0);
    EXPECT_EQ(std::memcmp(&peer, &name_, sizeof(peer)), 0);
    length = 0;
    EXPECT_EQ(WSPGetPeerName(s_, nullptr, &length, &error_), SOCKET_ERROR);
    EXPECT_EQ(error_, WSAEFAULT);
    EXPECT_EQ(length, 16);
}

TEST_F(ConnectOperation, SplitGoesToTheRelayOrIsUndone) {
    Fake().verdict = [](SocketContext*, ConnectTarget* target, int*) {
        target->way = ConnectTarget::Way::kThroughRelay;
        return true;
    };
    EXPECT_EQ(Connect(), WSAEFAULT) << "the split failed";
    EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
    EXPECT_EQ(Fake().abandonedSplits, 1);
    EXPECT_TRUE(Fake().connected.empty());
    EXPECT_EQ(context_->LocalAddress.Port(), 0);

    Fake().split = [](SocketContext*, ConnectTarget* target, int* length) {
        const sockaddr_in relay = MakeAddress("127.0.0.1", 48300);
        std::memcpy(&target->name, &relay, sizeof(relay));
        *length = 128;
        return true;
    };
    struct {
        int lowerError;
        int error;
        int abandoned;
        unsigned short localPort;
    } const cases[] = {{0, 0, 1, 7777},
                       {WSAEWOULDBLOCK, WSAEWOULDBLOCK, 1, 7777},
                       {WSA_IO_PENDING, WSAEWOULDBLOCK, 1, 7777},
                       {WSAECONNRESET, WSAECONNRESET, 2, 0}};
    for (const auto& row : cases) {
        Fake().connected.clear();
        context_->LocalAddress.Store(nullptr, 0);
        Fake().connectError = row.lowerError;
        EXPECT_EQ(Connect(), row.error);
        EXPECT_EQ(Fake().connected, (std::vector<std::string>{"127.0.0.1:48300 128"}));
        EXPECT_EQ(Fake().abandonedSplits, row.abandoned) << row.lowerError;
        EXPECT_EQ(context_->LocalAddress.Port(), row.localPort) << row.lowerError;
    }
}

TEST_F(ConnectOperation, NamesThatCantBeTakenAreRefusedBeforeAnyoneIsAsked) {
    bool asked = false;
    Fake().verdict = [&](SocketContext*, ConnectTarget*, int*) { return asked = true; };
    char name[200] = {};
    name[0] = AF_INET;
    for (const int length : {129, 200, -1}) {
        EXPECT_EQ(WSPConnect(s_, reinterpret_cast<sockaddr*>(name), length, nullptr, nullptr, nullptr,
                             nullptr, &error_),
                  SOCKET_ERROR);
        EXPECT_EQ(error_, WSAEFAULT) << length;
    }
    // A name on the last bytes before memory that can't be read.
    const EdgeOfMemory memory;
    auto* const edge = reinterpret_cast<sockaddr*>(memory.LastBytes(8));
    EXPECT_EQ(WSPConnect(s_, edge, 16, nullptr, nullptr, nullptr, nullptr, &error_), SOCKET_ERROR);
    EXPECT_EQ(error_, WSAEFAULT);
    EXPECT_EQ(WSPConnect(s_, nullptr, 16, nullptr, nullptr, nullptr, nullptr, &error_), SOCKET_ERROR);
    EXPECT_EQ(error_, WSAEFAULT);
    EXPECT_FALSE(asked);

    EXPECT_EQ(WSPConnect(INVALID_SOCKET, nullptr, 0, nullptr, nullptr, nullptr, nullptr, &error_),
              SOCKET_ERROR);
    EXPECT_EQ(error_, WSAENOTSOCK);
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
    EXPECT_EQ(WSPBind(s_, name, sizeof(name_), &error_), SOCKET_ERROR);
    EXPECT_EQ(error_, WSAECONNABORTED);
}

}  // namespace
