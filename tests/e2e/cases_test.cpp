// Every case of the demo's table, each on a stage of its own, with an application that connects as it likes
// best and one that connects without blocking: the promises are the same.
#include "apps/demo/outcome.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

struct Play {
    Case scene;
    bool nonblocking;
};

std::vector<Play> Plays() {
    std::vector<Play> plays;
    for (const Case& scene : Cases()) {
        plays.push_back({scene, false});
        if (scene.transport == Transport::Stream && scene.connections == 0) plays.push_back({scene, true});
    }
    return plays;
}

std::string PlayName(const testing::TestParamInfo<Play>& info) {
    std::string name = info.param.scene.name + (info.param.nonblocking ? " nonblocking" : "");
    std::replace_if(
        name.begin(), name.end(), [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); }, '_');
    return name;
}

std::string AllProblems(const Outcome& outcome) {
    std::string all;
    for (const std::string& problem : outcome.problems)
        all += problem + "\n";
    return all;
}

void PrintTo(const Play& play, std::ostream* out) {
    *out << play.scene.name;
}

class CasesTest : public testing::TestWithParam<Play> {};

TEST_P(CasesTest, KeepsItsPromise) {
    const Case& scene = GetParam().scene;
    Stage stage({scene});
    std::vector<std::string> arguments;
    if (GetParam().nonblocking) arguments.emplace_back("--nonblocking");
    const auto client = stage.StartClient(scene, arguments);
    const ClientRun run = stage.Finish(scene, client.get());
    const Outcome outcome = Judge(scene, run, stage.AllQuestions(), stage.AllVisits());
    EXPECT_TRUE(outcome.Passed()) << AllProblems(outcome) << stage.ErrorOutput();
}

INSTANTIATE_TEST_SUITE_P(All, CasesTest, testing::ValuesIn(Plays()), PlayName);

}  // namespace
