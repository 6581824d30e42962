// A program that ends while threads of it await verdicts. Each round is a process of its own.
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vector>

#include "tests/support/connect_fixture.h"

namespace {

constexpr int kRounds = 12;
constexpr int kStatus = 7;
constexpr std::size_t kThreads = 3;

class ProcessExit : public ConnectFixture {
  protected:
    void SetUp() override {
        ::testing::FLAGS_gtest_death_test_style = "threadsafe";
        ConnectFixture::SetUp();
    }

    /// Ends the process with its status when every thread's question has come, and is being answered by some
    /// of the answers given.
    [[noreturn]] void ExitWhileVerdictsAreAwaited(std::size_t answers) {
        StartWinsock();
        analyzer_.SetScript([answers, this](const SeenRequest& request, AnalyzerConnection& connection) {
            if (!analyzer_.WaitForRequests(kThreads)) std::abort();
            if (request.connection <= answers) connection.Answer(request);
        });
        std::vector<std::thread> threads(kThreads);
        for (std::thread& thread : threads)
            thread = std::thread([] { ConnectToPublic(StreamSocket()); });
        if (!analyzer_.WaitForRequests(kThreads)) std::abort();
        std::filesystem::remove_all(Settings().commonAppData);  // no fixture is taken down
        std::exit(kStatus);
    }
};

TEST_F(ProcessExit, EndsAProgramWhoseThreadsAwaitVerdicts) {
    for (int round = 0; round < kRounds; ++round) {
        const std::size_t answers = round % 2 == 0 ? 0 : kThreads;
        EXPECT_EXIT(ExitWhileVerdictsAreAwaited(answers), ::testing::ExitedWithCode(kStatus), "") << round;
    }
}

}  // namespace
