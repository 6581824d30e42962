// The life of an overlapped connection, once for every platform call in it, with that call failing: connect
// by ConnectEx with a verdict, send, receive, disconnect. Whatever fails, each request that was taken ends,
// with success or an error that Winsock documents, and nothing stays behind.
#include <winsock2.h>

#include <mswsock.h>

#include <gtest/gtest.h>

#include <chrono>
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

/// One request, waited for by polling its record: that makes no platform call that could itself be struck.
struct PolledRequest {
    WSAOVERLAPPED overlapped{};

    bool InProgress() const { return __atomic_load_n(&overlapped.Internal, __ATOMIC_ACQUIRE) == 0x103; }

    /// What was wrong with its end; empty for a documented one. `*succeeded` tells how it ended.
    std::string End(const char* call, bool taken, bool* succeeded) {
        *succeeded = false;
        const int error = taken ? 0 : WSAGetLastError();
        if (!taken && error != WSA_IO_PENDING)
            return IsDocumentedWinsockError(error) ? "" : Undocumented(call, error);
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (InProgress()) {
            if (std::chrono::steady_clock::now() > limit) return std::string(call) + " never ends";
            std::this_thread::yield();
        }
        const int ended = static_cast<int>(overlapped.OffsetHigh);
        *succeeded = ended == 0;
        return ended == 0 || IsDocumentedWinsockError(ended) ? "" : Undocumented(call, ended);
    }

    static std::string Undocumented(const char* call, int error) {
        return std::string(call) + " fails with " + std::to_string(error);
    }
};

class OverlappedSweep : public LayerFixture {
  protected:
    void SetUp() override {
        LayerFixture::SetUp();
        SetAnalyzerPort(analyzer_.Port());
        RouteTo("203.0.113.10:80", origin_.Port());
        platform::SetClockRate(200);
        ApplyMachine();
        RunScenario([] { return std::string(); });
    }

    void TearDown() override {
        platform::ResetClock();
        LayerFixture::TearDown();
    }

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

  private:
    static std::string UseWinsock() {
        WSADATA data;
        const int startError = WSAStartup(MAKEWORD(2, 2), &data);
        if (startError != 0) return Judge("WSAStartup", startError);
        std::string wrong = UseSocket();
        if (WSACleanup() != 0) {
            if (wrong.empty()) wrong = Judge("WSACleanup", WSAGetLastError());
            WSACleanup();
        }
        return wrong;
    }

    static std::string UseSocket() {
        const SOCKET s = WSASocketA(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED);
        if (s == INVALID_SOCKET) return Judge("WSASocketA", WSAGetLastError());
        std::string wrong = Exchange(s);
        if (closesocket(s) != 0) {
            if (wrong.empty()) wrong = Judge("closesocket", WSAGetLastError());
            closesocket(s);
        }
        return wrong;
    }

    static std::string Exchange(SOCKET s) {
        const sockaddr_in any = Ipv4("0.0.0.0", 0);
        if (bind(s, reinterpret_cast<const sockaddr*>(&any), sizeof(any)) != 0)
            return Judge("bind", WSAGetLastError());
        LPFN_CONNECTEX connectEx = nullptr;
        LPFN_DISCONNECTEX disconnectEx = nullptr;
        if (!Fetch(s, WSAID_CONNECTEX, &connectEx) || !Fetch(s, WSAID_DISCONNECTEX, &disconnectEx))
            return Judge("WSAIoctl", WSAGetLastError());

        bool succeeded = false;
        const sockaddr_in destination = Ipv4("203.0.113.10", 80);
        PolledRequest connecting;
        std::string wrong =
            connecting.End("ConnectEx",
                           connectEx(s, reinterpret_cast<const sockaddr*>(&destination), sizeof(destination),
                                     nullptr, 0, nullptr, &connecting.overlapped),
                           &succeeded);
        if (!succeeded) return wrong;

        char ping[] = "ping";
        WSABUF out = {4, ping};
        PolledRequest sending;
        wrong = sending.End("WSASend", WSASend(s, &out, 1, nullptr, 0, &sending.overlapped, nullptr) == 0,
                            &succeeded);
        if (!succeeded) return wrong;

        char pong[16];
        WSABUF in = {sizeof(pong), pong};
        DWORD flags = 0;
        PolledRequest receiving;
        wrong = receiving.End(
            "WSARecv", WSARecv(s, &in, 1, nullptr, &flags, &receiving.overlapped, nullptr) == 0, &succeeded);
        if (!succeeded) return wrong;

        PolledRequest disconnecting;
        return disconnecting.End("DisconnectEx", disconnectEx(s, &disconnecting.overlapped, 0, 0),
                                 &succeeded);
    }

    template <class Function>
    static bool Fetch(SOCKET s, GUID id, Function* function) {
        DWORD bytes = 0;
        return WSAIoctl(s, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof(id), function, sizeof(*function),
                        &bytes, nullptr, nullptr) == 0;
    }

    static std::string Judge(const char* call, int error) {
        return IsDocumentedWinsockError(error) ? "" : PolledRequest::Undocumented(call, error);
    }

    Origin origin_;
    ScriptedAnalyzer analyzer_;
};

}  // namespace

TEST_F(OverlappedSweep, EveryCallFailsInTurn) {
    ExpectLeftovers();  // of the releases that failed; every other run is compared by itself
    const SweepResult result = SweepFaults(platform::FaultKind::kError, 0, RunScenario);
    std::printf("%d platform calls, each failed in turn\n", result.runs);
    for (const std::string& failure : result.failures)
        ADD_FAILURE() << failure;
    EXPECT_GT(result.runs, 100);
}

TEST_F(OverlappedSweep, EveryGuardedCallRaisesInTurn) {
    SweepResult all;
    for (const std::string& function : FunctionsCalledBy(RunScenario)) {
        if (function.rfind("lower ", 0) != 0) continue;
        const SweepResult result =
            SweepFaultsOf(function, platform::FaultKind::kException, 0xE0000001, RunScenario);
        all.runs += result.runs;
        for (const std::string& failure : result.failures)
            ADD_FAILURE() << function << ", " << failure;
    }
    std::printf("%d guarded calls, each raising in turn\n", all.runs);
    EXPECT_GT(all.runs, 20);
}
