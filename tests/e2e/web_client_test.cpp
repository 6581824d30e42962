// Programs whose networking is the system's HTTP libraries', with the reference analyzer: what they see of
// each verdict, and what the analyzer is told. For the Windows build's applications alone.
#include "apps/demo/stage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <tuple>

namespace {

using namespace std::chrono_literals;

constexpr auto kLimit = 60s;

class WebClient : public testing::TestWithParam<std::tuple<const char*, const char*>> {};

TEST_P(WebClient, ObeysTheVerdict) {
    const auto& [library, name] = GetParam();
    const Case& scene = CaseNamed(name);
    Stage stage({scene});
    const auto client = stage.StartApplication(
        scene, "web_client", {library, "http://" + stage.DestinationOf(scene) + scene.path});
    const bool answered = !scene.answeredBy.empty();
    EXPECT_EQ(client->Wait(After(kLimit)), answered ? 0 : 1);
    const std::vector<std::string> output = client->Output();
    ASSERT_FALSE(output.empty()) << stage.ErrorOutput();
    EXPECT_EQ(output[0].rfind(answered ? "200 " + scene.body.value_or(scene.answeredBy) : "failed ", 0), 0u)
        << output[0];

    // A library may try again what was refused.
    const std::vector<Question>& questions = stage.AllQuestions();
    std::set<int> processes;
    int connects = 0;
    for (const Question& question : questions) {
        processes.insert(question.processId);
        EXPECT_EQ(question.user, kUser);
        EXPECT_EQ(question.destination, scene.destination);
        if (question.operation != "connect") continue;
        EXPECT_EQ(question.verdict, scene.verdict);
        ++connects;
    }
    EXPECT_GE(connects, 1);
    EXPECT_EQ(processes.size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Through, WebClient,
                         testing::Combine(testing::Values("winhttp", "wininet"),
                                          testing::Values("allowed", "refused", "redirected", "inspected",
                                                          "inspected and changed", "served by the analyzer")),
                         [](const auto& play) {
                             std::string name =
                                 std::string(std::get<0>(play.param)) + "_" + std::get<1>(play.param);
                             std::replace(name.begin(), name.end(), ' ', '_');
                             return name;
                         });

}  // namespace
