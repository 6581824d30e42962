// ConnectEx through the layer: it asks for its verdict like any connect, in every mode, and its socket can be
// used again.
#include <winsock2.h>

#include <mswsock.h>

#include <gtest/gtest.h>

#include <string>

#include "tests/provider/overlapped_fixture.h"
#include "tests/support/connect_fixture.h"

namespace {

/// ConnectEx with an analyzer.
class ConnectExVerdict : public ConnectFixture, public ::testing::WithParamInterface<Mode> {
  protected:
    void SetUp() override {
        ConnectFixture::SetUp();
        StartWinsock();
        StartLayerIn(GetParam());
    }

    static SOCKET BoundSocket() {
        const SOCKET s = NewOverlappedSocket();
        sockaddr_in any = Ipv4("0.0.0.0", 0);
        EXPECT_EQ(bind(s, Plain(&any), sizeof(any)), 0);
        return s;
    }

    /// The error with which a ConnectEx to the public address ends.
    static DWORD ConnectExToPublic(SOCKET s, char* data = nullptr, DWORD length = 0) {
        if (GetParam() == Mode::kForeignPort) PutLowerSocketsOnAForeignPort();
        EventRequest request;
        const int result = ConnectExTo(s, Ipv4(kPublic, kPort), data, length, &request.overlapped);
        const DWORD error = WasTaken(result) ? request.Wait(s) : static_cast<DWORD>(result);
        platform::DisarmFaults();
        return error;
    }

    static DWORD Exchange(SOCKET s, LoopbackStream& peer) {
        EventRequest send;
        send.buffer.len = 5;
        Send(s, send);
        EXPECT_EQ(send.Wait(s), 0u);
        char bytes[8];
        EXPECT_TRUE(peer.ReadExactly(bytes, 8));
        EXPECT_TRUE(peer.WriteAll("welcome", 7));
        EventRequest receive;
        Receive(s, receive);
        return receive.Wait(s);
    }
};

INSTANTIATE_TEST_SUITE_P(Modes, ConnectExVerdict,
                         ::testing::Values(Mode::kCompletionPort, Mode::kAlertable, Mode::kForeignPort),
                         [](const auto& mode) { return NameOf(mode.param); });

TEST_P(ConnectExVerdict, AllowedConnectionsAreCountedAndTheSocketConnectsAgain) {
    const SOCKET s = BoundSocket();
    char greeting[] = "abc";
    for (unsigned round = 0; round < 2; ++round) {
        ASSERT_EQ(ConnectExToPublic(s, greeting, 3), 0u);
        EXPECT_EQ(setsockopt(s, SOL_SOCKET, SO_UPDATE_CONNECT_CONTEXT, nullptr, 0), 0);
        EXPECT_EQ(PeerName(s), "203.0.113.10:80");
        LoopbackStream peer;
        ASSERT_TRUE(origin_.Accept(peer));
        EXPECT_EQ(Exchange(s, peer), 0u);
        EventRequest disconnecting;
        const auto disconnect = Extension<LPFN_DISCONNECTEX>(s, WSAID_DISCONNECTEX);
        const int result = ErrorOf(disconnect(s, &disconnecting.overlapped, TF_REUSE_SOCKET, 0));
        EXPECT_TRUE(WasTaken(result)) << result;
        EXPECT_EQ(disconnecting.Wait(s), 0u);
    }
    const auto requests = ConnectRequests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].Destination(), "203.0.113.10:80");
    EXPECT_EQ(requests[0].bytesSent + requests[0].bytesReceived, 0u);
    // The second question tells what the first connection has moved: 3 with the connect, 5 and 7 after.
    EXPECT_EQ(requests[1].bytesSent, 8u);
    EXPECT_EQ(requests[1].bytesReceived, 7u);
    closesocket(s);
}

TEST_P(ConnectExVerdict, RefusedConnectionsGoNowhereAndRedirectedOnesElsewhere) {
    ScriptedAnswer block;
    block.action = 1;
    ScriptedAnswer redirect;
    redirect.action = 2;
    redirect.redirectTo = std::string(kOther) + ":80";
    analyzer_.SetScript(AnswerInOrder({block, redirect}));
    const SOCKET refused = BoundSocket();
    EXPECT_EQ(ConnectExToPublic(refused), static_cast<DWORD>(WSAECONNREFUSED));
    closesocket(refused);
    const SOCKET redirected = BoundSocket();
    EXPECT_EQ(ConnectExToPublic(redirected), 0u);
    EXPECT_TRUE(otherOrigin_.HasConnection());
    EXPECT_FALSE(origin_.HasConnection());
    closesocket(redirected);
}

}  // namespace
