// The whole life of an inspected connection, once for every platform call in it, with that call failing:
// whatever fails, the process neither crashes nor hangs nor keeps anything, and the application sees success
// or an error that Winsock documents.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <set>
#include <string>

#include "platform/testing/clock.h"
#include "platform/testing/resource_counts.h"
#include "tests/faults/origin.h"
#include "tests/faults/sweep.h"
#include "tests/support/layer_fixture.h"
#include "tests/support/scripted_analyzer.h"

namespace {

class ConnectSweep : public LayerFixture {
  protected:
    void SetUp() override {
        LayerFixture::SetUp();
        SetAnalyzerPort(analyzer_.Port());
        RouteTo("203.0.113.10:80", origin_.Port());
    }

    /// Start up, create, connect with a verdict, send, receive, close, clean up: as a careful application
    /// does it.
    static std::string RunScenario(const std::function<std::string()>& failedCall) {
        const platform::ResourceCounts before = platform::CountResources();
        std::string wrong = UseWinsock();
        // A release that failed has left what it was to release.
        const std::set<std::string> releases = {"CloseHandle", "FreeLibrary", "HeapDestroy", "TlsFree"};
        if (releases.count(failedCall()) > 0) return wrong;
        const std::string growth = platform::SettleTo(before);
        if (!growth.empty()) wrong += " leaves " + growth;
        return wrong;
    }

    void PrepareSweep() {
        platform::SetClockRate(10);
        ApplyMachine();
        // The layer's collection thread is part of the scenario, and so is whatever it calls.
        RunScenario([] { return std::string(); });
    }

    void TearDown() override {
        platform::ResetClock();
        LayerFixture::TearDown();
    }

    static void Report(const SweepResult& result, const char* what) {
        std::printf("%s: %d platform calls, each failed in turn\n", what, result.runs);
        for (const std::string& failure : result.failures)
            ADD_FAILURE() << failure;
    }

  private:
    /// Empty when every failing call left a documented error.
    static std::string UseWinsock() {
        WSADATA data;
        const int startError = WSAStartup(MAKEWORD(2, 2), &data);
        if (startError != 0)
            return IsDocumentedWinsockError(startError) ? "" : Undocumented("WSAStartup", startError);
        std::string wrong = UseSocket();
        if (WSACleanup() != 0) {
            if (wrong.empty()) wrong = CheckLastError("WSACleanup");
            WSACleanup();
        }
        return wrong;
    }

    static std::string UseSocket() {
        const SOCKET s = WSASocketA(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED);
        if (s == INVALID_SOCKET) return CheckLastError("WSASocketA");
        std::string wrong = Exchange(s);
        if (closesocket(s) != 0) {
            if (wrong.empty()) wrong = CheckLastError("closesocket");
            closesocket(s);
        }
        return wrong;
    }

    static std::string Exchange(SOCKET s) {
        const sockaddr_in destination = Ipv4("203.0.113.10", 80);
        if (connect(s, reinterpret_cast<const sockaddr*>(&destination), sizeof(destination)) != 0) {
            return CheckLastError("connect");
        }
        if (send(s, "ping", 4, 0) < 0) return CheckLastError("send");
        char bytes[16];
        if (recv(s, bytes, sizeof(bytes), 0) < 0) return CheckLastError("recv");
        return "";
    }

    static std::string CheckLastError(const char* call) {
        const int error = WSAGetLastError();
        return IsDocumentedWinsockError(error) ? "" : Undocumented(call, error);
    }

    static std::string Undocumented(const char* call, int error) {
        return std::string(call) + " fails with " + std::to_string(error);
    }

    Origin origin_;
    ScriptedAnalyzer analyzer_;
};

}  // namespace

TEST_F(ConnectSweep, EveryCallFailsInTurn) {
    PrepareSweep();
    ExpectLeftovers();  // of the releases that failed; every other run is compared by itself
    const SweepResult result = SweepFaults(platform::FaultKind::kError, 0, RunScenario);
    Report(result, "errors");
    EXPECT_GT(result.runs, 100);
}

TEST_F(ConnectSweep, EveryCallTransfersOneByteInTurn) {
    PrepareSweep();
    const SweepResult result = SweepFaults(platform::FaultKind::kShortCount, 1, RunScenario);
    Report(result, "short counts");
    EXPECT_GT(result.runs, 100);
}

TEST_F(ConnectSweep, EveryGuardedCallRaisesInTurn) {
    PrepareSweep();
    // The lower provider and the socket calls that the layer alone makes here: an exception in a call that
    // the application makes itself would be the application's.
    const std::set<std::string> own = {"WSASend", "WSARecv", "ioctlsocket", "setsockopt", "select"};
    SweepResult all;
    for (const std::string& function : FunctionsCalledBy(RunScenario)) {
        if (function.rfind("lower ", 0) != 0 && own.count(function) == 0) continue;
        const SweepResult result =
            SweepFaultsOf(function, platform::FaultKind::kException, 0xE0000001, RunScenario);
        all.runs += result.runs;
        for (const std::string& failure : result.failures)
            all.failures.push_back(function + ", " + failure);
    }
    Report(all, "exceptions");
    EXPECT_GT(all.runs, 20);
}
