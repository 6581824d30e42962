// The demo must be able to fail: every way in which a case can break its promise is found.
#include "apps/demo/outcome.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

struct Evidence {
    ClientRun run;
    std::vector<Question> questions;
};

const Case& Redirected() {
    for (const Case& scene : Cases()) {
        if (scene.name == "redirected") return scene;
    }
    throw std::runtime_error("no such case");
}

Evidence Kept() {
    const Case& scene = Redirected();
    Evidence evidence;
    evidence.run.processId = 4711;
    evidence.run.destination = scene.destination;
    evidence.run.lines = {{"", 0, scene.destination, 200, kBeta, 3}};
    evidence.questions = {{"connect", 4711, kUser, scene.destination, "redirect"},
                          {"close", 4711, kUser, scene.destination, "allow"},
                          {"connect", 4712, kUser, "203.0.113.10:80", "allow"}};
    return evidence;
}

TEST(JudgeTest, FindsEveryBrokenPromise) {
    struct Break {
        const char* what;
        std::function<void(Evidence*)> apply;
    };
    const std::vector<Break> breaks = {
        {"exit status", [](Evidence* e) { e->run.exitStatus = 139; }},
        {"no line", [](Evidence* e) { e->run.lines.clear(); }},
        {"refused", [](Evidence* e) { e->run.lines[0].error = 10061; }},
        {"wrong server", [](Evidence* e) { e->run.lines[0].body = kAlpha; }},
        {"peer gives the redirection away", [](Evidence* e) { e->run.lines[0].peer = kBetaAddress; }},
        {"no status", [](Evidence* e) { e->run.lines[0].status = 0; }},
        {"never asked", [](Evidence* e) { e->questions.erase(e->questions.begin()); }},
        {"asked twice", [](Evidence* e) { e->questions.push_back(e->questions[0]); }},
        {"wrong process", [](Evidence* e) { e->questions[0].processId = 1; }},
        {"wrong user", [](Evidence* e) { e->questions[0].user = "DEMO\\bob"; }},
        {"wrong destination", [](Evidence* e) { e->questions[0].destination = kBetaAddress; }},
        {"wrong verdict", [](Evidence* e) { e->questions[0].verdict = "allow"; }},
    };
    const Evidence kept = Kept();
    EXPECT_TRUE(Judge(Redirected(), kept.run, kept.questions).Passed());
    for (const Break& broken : breaks) {
        Evidence evidence = Kept();
        broken.apply(&evidence);
        EXPECT_FALSE(Judge(Redirected(), evidence.run, evidence.questions).Passed()) << broken.what;
    }

    Case slow = Redirected();
    slow.leastMilliseconds = 18000;
    EXPECT_FALSE(Judge(slow, kept.run, kept.questions).Passed()) << "answered too early";

    // What stands in the analyzer's log beside its answers proves nothing.
    EXPECT_FALSE(ParseQuestion("listening on 127.0.0.1:4000"));
    EXPECT_FALSE(ParseQuestion("{\"operation\":"));
}

}  // namespace
