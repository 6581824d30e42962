// Programs that know nothing of the layer, run through it: what they see of each verdict, and what the
// analyzer is told.
#include "apps/demo/stage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

namespace {

using namespace std::chrono_literals;

constexpr auto kLimit = 60s;

struct Client {
    const char* name;
    std::vector<std::string> command;  // the URL comes behind it
};

const Client& ClientNamed(const std::string& name) {
    static const std::vector<Client> clients = {
        {"curl", {"curl", "-sS"}},
    };
    return *std::find_if(clients.begin(), clients.end(), [&](const Client& c) { return c.name == name; });
}

class ForeignProgram : public testing::TestWithParam<std::tuple<const char*, const char*>> {};

TEST_P(ForeignProgram, ObeysTheVerdict) {
    const Client& client = ClientNamed(std::get<0>(GetParam()));
    const Case& scene = CaseNamed(std::get<1>(GetParam()));
    Stage stage({scene});
    std::vector<std::string> command = {"--"};
    command.insert(command.end(), client.command.begin(), client.command.end());
    command.push_back("http://" + stage.DestinationOf(scene) + scene.path);
    const auto program = stage.StartApplication(scene, "qxrun", command);
    const bool answered = !scene.answeredBy.empty();
    EXPECT_EQ(program->Wait(After(kLimit)) == 0, answered) << stage.ErrorOutput();
    const std::vector<std::string> output = program->Output();
    if (answered) {
        ASSERT_FALSE(output.empty()) << stage.ErrorOutput();
        EXPECT_EQ(output[0], scene.body.value_or(scene.answeredBy));
    }
    const std::vector<Question> asked =
        QuestionsOf("connect", QuestionsAbout(stage.AllQuestions(), program->Id(), scene.destination));
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_EQ(asked[0].processId, program->Id());
    EXPECT_EQ(asked[0].user, kUser);
    EXPECT_EQ(asked[0].destination, scene.destination);
    EXPECT_EQ(asked[0].verdict, scene.verdict);
}

INSTANTIATE_TEST_SUITE_P(Through, ForeignProgram,
                         testing::Combine(testing::Values("curl"),
                                          testing::Values("allowed", "refused", "redirected")),
                         [](const auto& play) {
                             std::string name =
                                 std::string(std::get<0>(play.param)) + "_" + std::get<1>(play.param);
                             std::replace(name.begin(), name.end(), ' ', '_');
                             return name;
                         });

}  // namespace
