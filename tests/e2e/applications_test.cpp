// What one application alone does not show: several at once, many connects, an analyzer that goes and comes
// back, and a demo that is interrupted or can't tell what it saw.
#include "apps/demo/outcome.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <cerrno>
#include <fstream>
#include <future>
#include <sstream>
#include <stdexcept>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr auto kLimit = 60s;

Case Repeated(const std::string& name, int requests) {
    Case scene = CaseNamed(name);
    scene.requests = requests;
    scene.questions = requests;
    return scene;
}

void ExpectPromiseKept(const Case& scene, const ClientRun& run, const std::vector<Question>& questions) {
    const Outcome outcome = Judge(scene, run, questions, {});
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
    EXPECT_EQ(Judge(scene, run, stage.AllQuestions(), stage.AllVisits()).questions.size(), 2u);
}

class DemoTest : public testing::Test {
  protected:
    DemoTest() {
        std::string pattern = (fs::temp_directory_path() / "qxdemo-test-XXXXXX").string();
        if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot make a temporary directory");
        directory_ = pattern;
        fs::create_directory(Temporary());
    }
    ~DemoTest() override { fs::remove_all(directory_); }

    fs::path Temporary() const { return directory_ / "tmp"; }

    ChildOptions Options(std::vector<std::string> arguments) const {
        ChildOptions options;
        options.arguments = std::move(arguments);
        options.environment = {{"TMPDIR", Temporary().string()}};
        options.errorFile = directory_ / "errors";
        return options;
    }

    std::string Errors() const {
        std::ostringstream text;
        text << std::ifstream(directory_ / "errors").rdbuf();
        return text.str();
    }

    void ExpectNothingLeft() const {
        for (const fs::directory_entry& left : fs::recursive_directory_iterator(Temporary())) {
            // The thread sanitizer's own, of a process that was ended while its runtime started.
            if (left.path().filename().string().rfind("tsan.rodata.", 0) == 0) continue;
            ADD_FAILURE() << left.path() << " is left";
        }
    }

    const std::string demo_ = (ProgramDirectory() / "qxdemo").string();

  private:
    fs::path directory_;
};

TEST_F(DemoTest, InterruptedDemoEndsItsProcessesAndCleansUp) {
    ChildProcess demo(Options({demo_, "--verbose", "--case", "analyzer silent, policy 0"}));
    std::optional<std::string> line;
    for (std::size_t i = 0; (line = demo.Line(i, After(kLimit))) && line->rfind("process ", 0) != 0;)
        ++i;
    ASSERT_TRUE(line);
    const pid_t application = std::stoi(line->substr(8));
    demo.RequestStop();
    EXPECT_EQ(demo.Wait(After(kLimit)), 130);
    ExpectNothingLeft();
    EXPECT_EQ(kill(application, 0), -1);
    EXPECT_EQ(errno, ESRCH);
}

TEST_F(DemoTest, SaysSoWhenItsOutputCannotBeWritten) {
    for (const std::string output : {"--case allowed >/dev/full", "--json --case allowed >/dev/full",
                                     "--list >/dev/full", "--case allowed >&-"}) {
        const std::string before = Errors();
        ChildProcess demo(Options({"/bin/sh", "-c", "exec '" + demo_ + "' " + output}));
        EXPECT_EQ(demo.Wait(After(kLimit)), 2) << output;
        EXPECT_EQ(Errors(), before + "qxdemo: cannot write to the standard output\n") << output;
    }
    ExpectNothingLeft();
}

}  // namespace
