// Who is asked about at all, and what a socket is left with when nobody can be: without Winsock, so that no
// spy socket can be made.
#include <ws2tcpip.h>

#include <gtest/gtest.h>

#include "platform/testing/clock.h"
#include "platform/testing/machine.h"
#include "provider/contexts/socket_context.h"
#include "provider/process_state.h"
#include "relay/channel/analyzer_channel.h"
#include "tests/support/layer_fixture.h"

namespace {

class ChannelPreparation : public ::testing::Test {
  protected:
    void SetUp() override {
        InitializeLocks();
        platform::SetClockRate(0);
    }
    void TearDown() override {
        ExemptProcessId = CurrentProcessId = 0;
        platform::ResetClock();
        platform::SetMachineForTest(*machine_);
        DeleteLocks();
    }

    static void SetPolicy(std::uint32_t stop) {
        platform::Machine machine;
        platform::RegistryValue value;
        value.isNumber = true;
        value.number = stop;
        machine.registry["HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantrex Software\\Talvessa QX"]
                        ["StopActivityOnFailConnect"] = value;
        platform::SetMachineForTest(machine);
        platform::AdvanceClock(601 * 1000);
    }

    std::shared_ptr<const platform::Machine> machine_ = platform::TheMachine();
};

TEST_F(ChannelPreparation, WhatIsExemptNeedsNoAnalyzerAndTheRestFollowsThePolicy) {
    enum class By { kNothing, kOwn, kLocalSocket, kProcess };
    const struct {
        const char* what;
        By by;
        const char* name;  // null: what the socket holds, which is public
        DWORD policy;
        bool ready;
        bool flagsStay;
        bool local;
        bool blocked;
    } rows[] = {
        {"a socket of the layer's", By::kOwn, "203.0.113.10", 1, true, false, false, true},
        {"one that is connected locally", By::kLocalSocket, "203.0.113.10", 1, true, false, true, true},
        {"a process that the analyzer exempts", By::kProcess, "203.0.113.10", 1, true, false, false, true},
        {"a local name", By::kNothing, "10.1.2.3", 1, true, false, true, false},
        {"a public name that may go", By::kNothing, "203.0.113.10", 0, false, true, false, false},
        {"a public name that must not", By::kNothing, "203.0.113.10", 1, false, true, false, true},
        {"the name that the socket holds", By::kNothing, nullptr, 1, false, true, false, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        SetPolicy(row.policy);
        SocketContext context;
        context.SpySocket = INVALID_SOCKET;
        context.SocketType = SOCK_STREAM;
        context.Own = row.by == By::kOwn;
        context.LocalDestination = row.by == By::kLocalSocket;
        CurrentProcessId = 4711;
        ExemptProcessId = row.by == By::kProcess ? 4711 : 4712;
        context.ReportTraffic = context.InspectData = context.CountTraffic = context.AnalyzerServes = TRUE;
        context.Blocked = TRUE;
        const sockaddr_in held = Ipv4("203.0.113.20", 80);
        context.DestinationAddress.Store(&held, sizeof(held));
        SOCKADDR_STORAGE name{};
        if (row.name != nullptr) {
            const sockaddr_in asked = Ipv4(row.name, 80);
            std::memcpy(&name, &asked, sizeof(asked));
        }
        EXPECT_EQ(PrepareAnalyzerChannel(&context, row.name != nullptr ? &name : nullptr, 16), row.ready);
        EXPECT_EQ(
            context.ReportTraffic && context.InspectData && context.CountTraffic && context.AnalyzerServes,
            row.flagsStay);
        EXPECT_EQ(
            context.ReportTraffic || context.InspectData || context.CountTraffic || context.AnalyzerServes,
            row.flagsStay);
        EXPECT_EQ(context.LocalDestination, row.local ? TRUE : FALSE);
        EXPECT_EQ(context.Blocked, row.blocked ? TRUE : FALSE);
        EXPECT_EQ(context.SpySocket, INVALID_SOCKET);
    }
    EXPECT_TRUE(PrepareAnalyzerChannel(nullptr, nullptr, 0));
}

}  // namespace
