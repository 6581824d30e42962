// The analyzer can't be reached: how long that is waited for, and what the machine's setting makes of the
// connect.
#include <winsock2.h>

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "platform/kernel/fault_points.h"
#include "platform/testing/clock.h"
#include "tests/support/connect_fixture.h"

namespace {

constexpr char kPolicy[] = "StopActivityOnFailConnect";

// Those of a connect to nowhere: the connecting thread's, and natively the base provider's, which watches the
// connect.
#ifdef _WIN32
constexpr int kTimedWaits = 1;
#else
constexpr int kTimedWaits = 2;
#endif

class FailConnect : public ConnectFixture {
  protected:
    void SetUp() override {
        ConnectFixture::SetUp();
        SetAnalyzerPort(nobody_.Port());
    }

    void SetPolicy(DWORD value) {
        SetRegistryValue(kPolicy, value);
        ApplyMachine();
    }

    /// What a stopped clock must be stepped by for a connect to come to its end: not yet after one
    /// millisecond less.
    void ExpectConnectEndsAfter(DWORD milliseconds) {
        auto connecting = std::async(std::launch::async, [] { return ConnectOnce(); });
        ASSERT_TRUE(platform::WaitForTimedWaits(kTimedWaits));
        platform::AdvanceClock(milliseconds - 1);
        EXPECT_EQ(connecting.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
        platform::AdvanceClock(1);
        EXPECT_EQ(connecting.get(), 0);
    }

    ClosedPort nobody_;
};

TEST_F(FailConnect, TheSettingDecides) {
    StartWinsock();
    EXPECT_EQ(ConnectOnce(), 0) << "without a setting";
    EXPECT_TRUE(origin_.HasConnection());
    EXPECT_GE(CountDebugLines("ERROR:Failed to connect to lsp server. #Details: Connection[1]"), 1u);
    StopWinsock();

    for (const DWORD setting : {0u, 1u, 7u}) {
        SetRegistryValue(kPolicy, setting);
        StartWinsock();
        EXPECT_EQ(ConnectOnce(), setting == 0 ? 0 : WSAECONNREFUSED) << setting;
        StopWinsock();
    }
    platform::RegistryValue text;
    text.text = "no";
    Settings().registry["HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantrex Software\\Talvessa QX"][kPolicy] = text;
    StartWinsock();
    EXPECT_EQ(ConnectOnce(), 0) << "not a number";
}

TEST_F(FailConnect, TheSettingIsKeptForTenMinutes) {
    const platform::ScopedClockRate stopped(0);
    SetRegistryValue(kPolicy, 1);
    StartWinsock();
    EXPECT_EQ(ConnectOnce(), WSAECONNREFUSED);
    SetPolicy(0);
    platform::AdvanceClock(600 * 1000);
    EXPECT_EQ(ConnectOnce(), WSAECONNREFUSED);
    platform::AdvanceClock(1000);
    EXPECT_EQ(ConnectOnce(), 0);
    SetPolicy(1);
    EXPECT_EQ(ConnectOnce(), 0);
}

TEST_F(FailConnect, ASocketRefusedMeanwhileIsAskedAboutOnceTheAnalyzerIsBack) {
    const platform::ScopedClockRate stopped(0);
    SetRegistryValue(kPolicy, 1);
    StartWinsock();
    const SOCKET s = StreamSocket();
    EXPECT_EQ(ConnectToPublic(s), WSAECONNREFUSED);
    EXPECT_EQ(send(s, "x", 1, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAECONNABORTED) << "as after a refusal by the analyzer";
    SetAnalyzerPort(analyzer_.Port());
    platform::AdvanceClock(301 * 1000);  // the port is kept for five minutes
    EXPECT_EQ(ConnectToPublic(s), 0);
    EXPECT_EQ(ConnectRequests().size(), 1u);
    EXPECT_EQ(closesocket(s), 0);
}

TEST_F(FailConnect, OwnProcessesAreKnownByTheirModulesAndLeftAlone) {
    SetRegistryValue(kPolicy, 1);
    const struct {
        std::vector<std::string> modules;
        int error;
    } cases[] = {{{}, WSAECONNREFUSED},
                 {{"dispatcherqx.dll"}, 0},
                 {{"qx.dll"}, 0},
                 {{"qx.dll", "qxwatchdog.dll"}, WSAECONNREFUSED}};
    for (const auto& row : cases) {
        Settings().extraModules = row.modules;
        StartWinsock();
        EXPECT_EQ(ConnectOnce(), row.error) << ::testing::PrintToString(row.modules);
        StopWinsock();
    }
}

// A failing wait of the first attempt shortens the second's; one that comes through gives the second back.
TEST_F(FailConnect, TheWaitForAStuckAnalyzerIsShortAfterTheFirst) {
    const std::string channel = "127.0.0.1:" + std::to_string(nobody_.Port());
    RouteToNowhere(channel);
    StartWinsock();
    {
        const platform::ScopedClockRate stopped(0);
        ExpectConnectEndsAfter(1000);
        ExpectConnectEndsAfter(100);
    }
    EXPECT_EQ(CountDebugLines("ERROR:Failed to select on a connection request to lsp server:0. #Details: "),
              2u);

    Settings().routes.pop_back();
    RouteTo(channel, analyzer_.Port());
    ApplyMachine();
    EXPECT_EQ(ConnectOnce(), 0);
    EXPECT_EQ(ConnectRequests().size(), 1u);

    Settings().routes.pop_back();
    RouteToNowhere(channel);
    ApplyMachine();
    const platform::ScopedClockRate stopped(0);
    ExpectConnectEndsAfter(1000);
}

// Each call that opens the channel fails in turn: the connect goes through or is refused, as the setting
// says, and nothing is left behind.
TEST_F(FailConnect, EveryStepOfOpeningTheChannelMayFail) {
    SetAnalyzerPort(analyzer_.Port());
    SetRegistryValue(kPolicy, 1);
    StartWinsock();
    const struct {
        const char* function;
        int nth;
        const char* line;
    } steps[] = {
        {"WSASocketA", 1, "ERROR:Failed to create socket for connecting to lsp server:"},
        {"ioctlsocket", 1, "ERROR:Failed to connect to lsp server:"},
        {"connect", 2, "ERROR:Failed to connect to lsp server:"},
        {"select", 1, "ERROR:Failed to select on a connection request to lsp server:-1"},
        {"ioctlsocket", 2, "ERROR:Failed to set spy socket to non blocking. Error = -1"},
        {"WSASend", 1, "ERROR:Closing spy socket because of send failure 8:"},
        {"WSARecv", 1, "Exiting recv using socket.3"},
    };
    for (const auto& step : steps) {
        const std::size_t linesBefore = CountDebugLines(step.line);
        const platform::ScopedFault fault({step.function, step.nth});
        EXPECT_EQ(ConnectOnce(), WSAECONNREFUSED) << step.function;
        EXPECT_EQ(platform::FaultsStruck(), 1) << step.function;
        EXPECT_EQ(CountDebugLines(step.line), linesBefore + 1) << step.function;
    }
    EXPECT_EQ(ConnectOnce(), 0);
}

}  // namespace
