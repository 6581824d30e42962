// Programs that know nothing of the layer, run through it: what they see of each verdict, and what the
// analyzer is told.
#include "apps/demo/outcome.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

namespace {

class ForeignProgram : public testing::TestWithParam<Case> {};

TEST_P(ForeignProgram, ObeysTheVerdict) {
    const Case& scene = GetParam();
    Stage stage({scene});
    const auto client = stage.StartClient(scene, {});
    const ClientRun run = stage.Finish(scene, client.get());
    const Outcome outcome = Judge(scene, run, stage.AllQuestions(), stage.AllVisits());
    EXPECT_EQ(outcome.problems, std::vector<std::string>()) << stage.ErrorOutput();
}

INSTANTIATE_TEST_SUITE_P(All, ForeignProgram, testing::ValuesIn(ProgramCases()), [](const auto& play) {
    std::string name = play.param.name;
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return !std::isalnum(c); }, '_');
    return name;
});

}  // namespace
