// A program that uses sockets in every way prints the same bare and through the layer, whatever the analyzer
// does.
#include "apps/demo/stage.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

namespace {

using namespace std::chrono_literals;

constexpr auto kLimit = 60s;
constexpr const char* kAlias = "203.0.113.50";

/// As one text, of which a failure shows the differing lines.
std::string OutputOf(ChildProcess* program) {
    EXPECT_EQ(program->Wait(After(kLimit)), 0);
    std::string text;
    for (const std::string& line : program->Output())
        text += line + "\n";
    return text;
}

std::string Probe() {
    return (ProgramDirectory() / "qxsocketprobe").string();
}

std::string Bare() {
    ChildOptions options;
    options.arguments = {Probe()};
    ChildProcess program(options);
    return OutputOf(&program);
}

/// A relay passes no resets on, no half of an end, and connects first and learns then that nobody listens.
/// Its thread may have the lowest descriptor for the moment in which it makes one.
std::string WithoutWhatARelayChanges(const std::string& text) {
    std::istringstream lines(text);
    std::string rest;
    bool isEnds = false;
    for (std::string line; std::getline(lines, line);) {
        if (line[0] != ' ') isEnds = line == "ends";
        const bool differs = line.rfind("  back:", 0) == 0 || line.rfind("  lowest again:", 0) == 0;
        if (!isEnds && !differs) rest += line + "\n";
    }
    return rest;
}

TEST(Transparency, AProgramSeesTheSameAsWithoutTheLayer) {
    const struct {
        const char* name;
        AnalyzerState analyzer;
        const char* rule;
        bool relayed;
    } rows[] = {
        {"absent", AnalyzerState::Down, "", false},
        {"allowing", AnalyzerState::Running, "action = 'allow'", false},
        {"splitting", AnalyzerState::Running, "flags = 'relay'", true},
        {"inspecting", AnalyzerState::Running, "flags = 'inspect'", true},
    };
    const std::string bare = Bare();
    ASSERT_FALSE(bare.empty());
    setenv("QX_RUN_LOOPBACK_AS", kAlias, 1);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Case scene;
        scene.name = row.name;
        scene.destination = std::string(kAlias) + ":0";
        scene.server = kItself;
        scene.analyzer = row.analyzer;
        scene.rule = row.rule;
        Stage stage({scene});
        const auto program =
            stage.StartApplication(scene, "qxrun", {"--without-layer", "refuse", "--", Probe()});
        const std::string layered = OutputOf(program.get());
        EXPECT_EQ(row.relayed ? WithoutWhatARelayChanges(layered) : layered,
                  row.relayed ? WithoutWhatARelayChanges(bare) : bare)
            << stage.ErrorOutput();
        const bool asked = !QuestionsOf("connect", stage.AllQuestions()).empty();
        EXPECT_EQ(asked, row.analyzer == AnalyzerState::Running);
    }
}

}  // namespace
