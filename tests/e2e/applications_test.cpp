// What one application alone does not show: several at once, many connects, an analyzer that goes and comes
// back, and a demo that is interrupted.
#include "apps/demo/outcome.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <cerrno>
#include <future>

namespace {

using namespace std::chrono_literals;

constexpr auto kLimit = 60s;

Case Repeated(const std::string& name, int requests) {
    Case scene = CaseNamed(name);
    scene.requests = requests;
    scene.questions = requests;
    return scene;
}

void ExpectPromiseKept(const Case& scene, const ClientRun& run, const std::vector<Question>& questions) {
    const Outcome outcome = Judge(scene, run, questions);
    for (const std::string& problem : outcome.problems)
        ADD_FAILURE() << scene.name << ": " << problem;
}

TEST(ApplicationsTest, TwoAtOnceGetTheirOwnVerdicts) {
    const Case allowed = Repeated("allowed", 50);
    const Case refused = Repeated("refused", 50);
    Stage stage({allowed, refused});
    auto first = std::async(std::launch::async, [&] { return stage.Play(allowed); });
    auto second = std::async(std::launch::async, [&] { return stage.Play(refused); });
    const ClientRun firstRun = first.get();
    const ClientRun secondRun = second.get();
    EXPECT_NE(firstRun.processId, secondRun.processId);
    ExpectPromiseKept(allowed, firstRun, stage.AllQuestions());
    ExpectPromiseKept(refused, secondRun, stage.AllQuestions());
}

TEST(ApplicationsTest, ManyConnectsOfOneProcessAreEachAsked) {
    const Case scene = Repeated("redirected", 300);
    Stage stage({scene});
    const ClientRun run = stage.Play(scene);
    ExpectPromiseKept(scene, run, stage.AllQuestions());
}

TEST(ApplicationsTest, AnalyzerThatGoesAndComesBackIsAskedAgain) {
    Case scene = Repeated("allowed", 3);
    scene.refuseWithoutAnalyzer = true;
    Stage stage({scene});
    const auto client = stage.StartClient(scene, {"--step"});
    ASSERT_TRUE(client->Line(0, After(kLimit)));
    stage.StopAnalyzer();
    ASSERT_TRUE(client->WriteLine("next"));
    ASSERT_TRUE(client->Line(1, After(kLimit)));
    stage.StartAnalyzer();
    ASSERT_TRUE(client->WriteLine("next"));
    const ClientRun run = stage.Finish(scene, client.get());

    ASSERT_EQ(run.lines.size(), 3u) << stage.ErrorOutput();
    EXPECT_EQ(run.lines[0].error, 0);
    EXPECT_EQ(run.lines[1].error, 10061);
    EXPECT_EQ(run.lines[2].error, 0);
    EXPECT_EQ(ConnectQuestions(stage.AllQuestions(), run.processId).size(), 2u);
}

TEST(DemoTest, InterruptedDemoEndsItsProcessesAndCleansUp) {
    namespace fs = std::filesystem;
    std::string pattern = (fs::temp_directory_path() / "qxdemo-test-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    const fs::path directory = pattern;
    const fs::path temporary = directory / "tmp";
    fs::create_directory(temporary);
    {
        ChildOptions options;
        options.arguments = {(fs::read_symlink("/proc/self/exe").parent_path() / "qxdemo").string(),
                             "--verbose", "--case", "analyzer silent, policy 0"};
        options.environment = {{"TMPDIR", temporary.string()}};
        options.errorFile = directory / "errors";
        ChildProcess demo(options);
        const auto line = demo.Line(0, After(kLimit));
        ASSERT_TRUE(line && line->rfind("process ", 0) == 0);
        const pid_t application = std::stoi(line->substr(8));
        demo.RequestStop();
        EXPECT_EQ(demo.Wait(After(kLimit)), 130);
        for (const fs::directory_entry& left : fs::recursive_directory_iterator(temporary)) {
            // The thread sanitizer's own, of a process that was ended while its runtime started.
            if (left.path().filename().string().rfind("tsan.rodata.", 0) == 0) continue;
            ADD_FAILURE() << left.path() << " is left";
        }
        EXPECT_EQ(kill(application, 0), -1);
        EXPECT_EQ(errno, ESRCH);
    }
    fs::remove_all(directory);
}

}  // namespace
