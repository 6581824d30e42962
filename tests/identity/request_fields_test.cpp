// What a request says about the process and the socket that it is about.
#include <gtest/gtest.h>

#include <cstring>

#include "identity/host_process.h"
#include "identity/process_identity.h"
#include "identity/request_fields.h"
#include "messages/analyzer_messages.h"
#include "provider/contexts/socket_context.h"
#include "provider/process_state.h"
#include "tests/support/layer_fixture.h"

namespace {

class RequestFields : public ::testing::Test {
  protected:
    void SetUp() override {
        InitializeLocks();
        Locker lock(IdentityLock);
        std::strcpy(ProcessImagePath, "C:\\app.exe");
    }
    void TearDown() override { DeleteLocks(); }
};

TEST_F(RequestFields, SayWhoAndWhichSocket) {
    SocketContext context;
    const sockaddr_in local = Ipv4("192.0.2.7", 50001);
    const sockaddr_in remote = Ipv4("203.0.113.9", 443);
    context.LocalAddress.Store(&local, sizeof(local));
    context.DestinationAddress.Store(&remote, sizeof(remote));
    context.BytesSent = 0x100000001;
    context.BytesRecv = 7;
    context.Protocol = 0x20;
    context.SocketType = SOCK_STREAM;

    LSPAnalyzerMessage request;
    FillRequestFields(request, &context);
    EXPECT_EQ(request.ProcessName, "C:\\app.exe");
    EXPECT_EQ(request.LocalPort, 50001);
    EXPECT_EQ(request.RemotePort, 443);
    EXPECT_EQ(std::memcmp(&request.LocalAddress, &local, sizeof(local)), 0);
    EXPECT_EQ(std::memcmp(&request.RemoteAddress, &remote, sizeof(remote)), 0);
    EXPECT_EQ(request.BytesSent, 0x100000001u);
    EXPECT_EQ(request.BytesReceived, 7u);
    EXPECT_EQ(request.Protocol, 0x20u);
    EXPECT_EQ(request.SocketType, 1u);

    // Without a socket: who asks, and no bytes; the rest stays.
    request.Flags = kFlagRelayWanted;
    request.ProcessName.clear();
    FillRequestFields(request, nullptr);
    EXPECT_EQ(request.ProcessName, "C:\\app.exe");
    EXPECT_EQ(request.BytesSent + request.BytesReceived, 0u);
    EXPECT_EQ(request.RemotePort, 443);
    EXPECT_EQ(request.Flags, kFlagRelayWanted);
}

TEST_F(RequestFields, ReportTheVerdictFlagsThatApplyToTheSocketsType) {
    const struct {
        Atomic<BOOL> SocketContext::*field;
        std::uint32_t stream;
        std::uint32_t datagram;
    } cases[] = {
        {&SocketContext::CountTraffic, 0x01, 0x01}, {&SocketContext::ReportTraffic, 0x02, 0x02},
        {&SocketContext::InspectData, 0x04, 0},     {&SocketContext::RelayWanted, 0x08, 0},
        {&SocketContext::AnalyzerServes, 0x20, 0},  {&SocketContext::Blocked, 0, 0},
    };
    for (const auto& row : cases) {
        for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
            SocketContext context;
            context.SocketType = type;
            context.*row.field = TRUE;
            LSPAnalyzerMessage request;
            request.Flags = 0x100;
            FillRequestFields(request, &context);
            EXPECT_EQ(request.Flags, 0x100u | (type == SOCK_STREAM ? row.stream : row.datagram));
        }
    }
}

}  // namespace
