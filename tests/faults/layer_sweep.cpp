// See layer_sweep.h.
#include "tests/faults/layer_sweep.h"

#include <cstdio>

#include "platform/testing/clock.h"
#include "platform/testing/resource_counts.h"

namespace {

std::string UseSocket(std::string (*use)(SOCKET)) {
    const SOCKET s = WSASocketA(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED);
    if (s == INVALID_SOCKET) return JudgeError("WSASocketA", WSAGetLastError());
    std::string wrong = use(s);
    if (closesocket(s) != 0) {
        if (wrong.empty()) wrong = JudgeError("closesocket", WSAGetLastError());
        closesocket(s);
    }
    return wrong;
}

std::string UseWinsock(std::string (*use)(SOCKET)) {
    WSADATA data;
    const int startError = WSAStartup(MAKEWORD(2, 2), &data);
    if (startError != 0) return JudgeError("WSAStartup", startError);
    std::string wrong = UseSocket(use);
    if (WSACleanup() != 0) {
        if (wrong.empty()) wrong = JudgeError("WSACleanup", WSAGetLastError());
        WSACleanup();
    }
    return wrong;
}

}  // namespace

std::string JudgeError(const char* call, int error) {
    return IsDocumentedWinsockError(error) ? "" : std::string(call) + " fails with " + std::to_string(error);
}

void LayerSweep::AllowAndReport(const SeenRequest& request, AnalyzerConnection& connection) {
    constexpr std::uint32_t kReportTraffic = 0x02;
    constexpr std::uint32_t kCloseSocket = 2;
    ScriptedAnswer answer;
    answer.flags = kReportTraffic;
    // Nobody waits for an answer to a close.
    if (request.operation != kCloseSocket) connection.Answer(request, answer);
}

void LayerSweep::SetUp() {
    LayerFixture::SetUp();
    SetAnalyzerPort(analyzer_.Port());
    RouteTo("203.0.113.10:80", origin_.Port());
    platform::SetClockRate(clockRate_);
    ApplyMachine();
    Scenario()([] { return std::string(); });
}

void LayerSweep::TearDown() {
    platform::ResetClock();
    LayerFixture::TearDown();
}

SweepScenario LayerSweep::Scenario() const {
    return [use = use_](const std::function<std::string()>& failedCall) {
        const platform::ResourceCounts before = platform::CountResources();
        std::string wrong = UseWinsock(use);
        // A release that failed has left what it was to release.
        const std::set<std::string> releases = {"CloseHandle", "FreeLibrary", "HeapDestroy", "TlsFree"};
        if (releases.count(failedCall()) > 0) return wrong;
        const std::string growth = platform::SettleTo(before);
        if (!growth.empty()) wrong += " leaves " + growth;
        return wrong;
    };
}

SweepResult LayerSweep::SweepExceptions(const std::set<std::string>& own,
                                        const std::set<std::string>& others) const {
    constexpr DWORD kException = 0xE0000001;
    SweepResult all;
    for (const std::string& function : FunctionsCalledBy(Scenario())) {
        if (function.rfind("lower ", 0) != 0 && own.count(function) == 0) continue;
        if (others.count(function) != 0) continue;
        const SweepResult result =
            SweepFaultsOf(function, platform::FaultKind::kException, kException, Scenario());
        all.runs += result.runs;
        for (const std::string& failure : result.failures)
            all.failures.push_back(function + ", " + failure);
    }
    return all;
}

void LayerSweep::Report(const SweepResult& result, const char* what) {
    std::printf("%s: %d platform calls, each struck in turn\n", what, result.runs);
    for (const std::string& failure : result.failures)
        ADD_FAILURE() << failure;
}
