// Sockets that are used by two threads, overlapped and not, while the analyzer allows, refuses or is silent,
// and closed at any moment: each request ends once, nothing hangs and nothing stays behind. QX_TEST_ROUNDS
// says how many sockets, QX_TEST_SEED repeats a run.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/testing/clock.h"
#include "tests/provider/overlapped_fixture.h"
#include "tests/relay/traffic_fixture.h"

namespace {

constexpr unsigned kWorkers = 4;

unsigned NumberFrom(const char* variable, unsigned otherwise) {
    const char* const given = std::getenv(variable);
    return given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : otherwise;
}

/// A server that sends back what it gets, one connection after the other.
class EchoInTurn {
  public:
    EchoInTurn() : thread_([this] { Serve(); }) {}
    ~EchoInTurn() {
        listener_.Interrupt();
        thread_.join();
    }
    EchoInTurn(const EchoInTurn&) = delete;
    EchoInTurn& operator=(const EchoInTurn&) = delete;
    std::uint16_t Port() const { return listener_.Port(); }

  private:
    void Serve() {
        LoopbackStream stream;
        while (listener_.Accept(stream)) {
            char bytes[64];
            for (std::size_t got; (got = stream.ReadSome(bytes, sizeof(bytes))) > 0;) {
                if (!stream.WriteAll(bytes, got)) break;
            }
            stream = LoopbackStream();
        }
    }

    LoopbackListener listener_;
    std::thread thread_;
};

class TrafficStress : public TrafficFixture, public ::testing::WithParamInterface<Mode> {
  protected:
    /// Answers most requests, refuses or forgets some.
    void AnswerAtRandom(unsigned seed) {
        const ScriptedAnalyzer::Script direct = Splitting(kReport | kCount);
        const ScriptedAnalyzer::Script split = Splitting(kReport | kForward);
        analyzer_.SetScript([=](const SeenRequest& request, AnalyzerConnection& connection) {
            std::minstd_rand random(seed ^ request.messageId);
            random.discard(3);
            const bool isTraffic = request.operation >= 3 && request.operation <= 6;
            if (isTraffic && random() % 128 == 0) return;
            if (isTraffic && random() % 8 == 0) {
                ScriptedAnswer refusal;
                refusal.action = 1;
                refusal.flags = 0x10;
                return connection.Answer(request, refusal);
            }
            (request.connection % 2 == 0 ? direct : split)(request, connection);
        });
    }

    /// One socket, from its connect to its close. What was wrong; empty when nothing was.
    static std::string PlayRound(const sockaddr_in& server, unsigned seed) {
        std::minstd_rand random(seed);
        const SOCKET s = NewOverlappedSocket();
        if (Connect(s, server) != 0) return closesocket(s) == 0 ? "" : "not closed";
        Request byRoutine;
        EventRequest byEvent;
        EventRequest sent;
        std::thread other([s, turns = random() % 4] {
            char bytes[64] = "other";
            for (unsigned i = 0; i <= turns; ++i) {
                if (send(s, bytes, 5, 0) <= 0 || recv(s, bytes, sizeof(bytes), 0) <= 0) return;
            }
        });
        const bool routineDue = WasTaken(Receive(s, byRoutine, CountCompletion));
        const bool sendDue = WasTaken(Send(s, sent));
        const bool eventDue = WasTaken(Receive(s, byEvent));
        for (unsigned pause = random() % 64; pause > 0; --pause)
            std::this_thread::yield();
        const bool closed = closesocket(s) == 0;
        std::string wrong = closed ? "" : "not closed; ";
        for (EventRequest* const request : {&sent, &byEvent}) {
            if (!(request == &sent ? sendDue : eventDue)) continue;
            if (WaitForSingleObject(request->overlapped.hEvent, kPatience) != WAIT_OBJECT_0)
                wrong += "never told; ";
            if (request->overlapped.OffsetHigh != 0 && request->overlapped.InternalHigh != 0)
                wrong += "bytes of a failed request; ";
        }
        while (routineDue && byRoutine.completions == 0) {
            if (SleepEx(kPatience, TRUE) != WAIT_IO_COMPLETION) wrong += "no routine; ";
        }
        other.join();
        SleepEx(0, TRUE);
        if (byRoutine.completions != (routineDue ? 1 : 0)) wrong += "told twice; ";
        return wrong;
    }

    /// On a clock that runs so much faster.
    static constexpr double kRate = 50;
    static constexpr DWORD kPatience = 50 * 60000;
};

INSTANTIATE_TEST_SUITE_P(Modes, TrafficStress, ::testing::Values(Mode::kCompletionPort, Mode::kAlertable),
                         [](const auto& parameter) { return NameOf(parameter.param); });

TEST_P(TrafficStress, EndsEachRequestOnceAndKeepsNothing) {
    const unsigned rounds = NumberFrom("QX_TEST_ROUNDS", 200);
    const unsigned seed = NumberFrom("QX_TEST_SEED", std::random_device()());
    std::printf("QX_TEST_SEED=%u\n", seed);
    AnswerAtRandom(seed);
    EchoInTurn servers[kWorkers];
    for (unsigned i = 0; i < kWorkers; ++i)
        RouteTo("192.0.2." + std::to_string(10 + i) + ":80", servers[i].Port());
    StartWinsock();
    StartLayerIn(GetParam());
    const platform::ScopedClockRate fast(kRate);
    std::vector<std::thread> workers;
    std::vector<std::string> wrong(kWorkers);
    for (unsigned i = 0; i < kWorkers; ++i) {
        workers.emplace_back([=, &wrong] {
            const sockaddr_in server = Ipv4("192.0.2." + std::to_string(10 + i), 80);
            for (unsigned round = i; round < rounds && wrong[i].empty(); round += kWorkers)
                wrong[i] = PlayRound(server, seed + round);
        });
    }
    for (std::thread& worker : workers)
        worker.join();
    EXPECT_EQ(wrong, std::vector<std::string>(kWorkers));
    EXPECT_EQ(CountRequests(12), rounds);
    EXPECT_GT(CountRequests(6), 0u) << "received bytes have been looked at";
}

}  // namespace
