// The demo must be able to fail: every way in which a case can break its promise is found, and the report
// shows what was told and seen, not what was promised.
#include "apps/demo/report.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <sstream>

namespace {

struct Evidence {
    ClientRun run;
    std::vector<Question> questions;
    std::vector<Visit> visits;
};

struct Break {
    const char* what;
    std::function<void(Evidence*)> apply;
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
    evidence.run.lines = {{"", 0, scene.destination, 200, kBeta, "", 3}};
    evidence.questions = {{"connect", 4711, kUser, scene.destination, "redirect", kBetaAddress},
                          {"close", 4711, kUser, scene.destination, "allow", ""},
                          {"connect", 4712, kUser, "203.0.113.10:80", "allow", ""}};
    return evidence;
}

/// What a case looked like that transfers bytes through the analyzer.
Evidence KeptTransfer(const Case& scene) {
    Evidence evidence;
    evidence.run.processId = 4711;
    evidence.run.destination = scene.destination;
    evidence.run.lines = {{"", 0, scene.destination, 200, kAlpha, "c0ffee", 3}};
    evidence.questions = {{"connect", 4711, kUser, scene.destination, "allow, inspect", ""},
                          {kInspected, 4711, kUser, scene.destination, "passed", ""}};
    evidence.visits = {{kAlpha, "GET " + scene.path + " HTTP/1.0", 104857606, "c0ffee", true},
                       {kAlpha, "GET /hello HTTP/1.0", 6, "decaf", false}};
    return evidence;
}

TEST(JudgeTest, FindsEveryBrokenPromiseOfASplitConnection) {
    const std::vector<Break> breaks = {
        {"not split", [](Evidence* e) { e->questions.pop_back(); }},
        {"split twice", [](Evidence* e) { e->questions.push_back(e->questions[1]); }},
        {"something else was done", [](Evidence* e) { e->questions[1].verdict = "replaced 1"; }},
        {"another's connection", [](Evidence* e) { e->questions[1].processId = 1; }},
        {"not inspected", [](Evidence* e) { e->questions[0].verdict = "allow"; }},
        {"other bytes", [](Evidence* e) { e->run.lines[0].checksum = "decaf"; }},
        {"not all bytes", [](Evidence* e) { e->visits[0].complete = false; }},
        {"from nowhere", [](Evidence* e) { e->visits.erase(e->visits.begin()); }},
        {"asked twice", [](Evidence* e) { e->visits.push_back(e->visits[0]); }},
    };
    const Case& scene = CaseNamed("100 MiB inspected");
    const Evidence kept = KeptTransfer(scene);
    EXPECT_TRUE(Judge(scene, kept.run, kept.questions, kept.visits).Passed());
    for (const Break& broken : breaks) {
        Evidence evidence = KeptTransfer(scene);
        broken.apply(&evidence);
        EXPECT_FALSE(Judge(scene, evidence.run, evidence.questions, evidence.visits).Passed()) << broken.what;
    }

    Case served = scene;
    served.visits = Visits::None;
    EXPECT_FALSE(Judge(served, kept.run, kept.questions, kept.visits).Passed()) << "the server was asked";

    Case failing = scene;
    failing.answeredBy.clear();
    failing.error = 10061;
    failing.visits = Visits::NotLookedAt;
    Evidence failed = kept;
    failed.run.exitStatus = 1;
    failed.run.lines[0].error = 10061;
    for (const char* step : {"connect", "receive"}) {
        failing.connects = true;
        failed.run.lines[0].failedStep = step;
        EXPECT_EQ(Judge(failing, failed.run, kept.questions, {}).Passed(), std::string(step) == "receive");
        failing.connects = false;
        EXPECT_EQ(Judge(failing, failed.run, kept.questions, {}).Passed(), std::string(step) == "connect");
    }
}

TEST(JudgeTest, FindsEveryBrokenPromiseAboutReports) {
    Case scene = CaseNamed("bytes counted");
    scene.reports = {"receive http"};
    Evidence kept = KeptTransfer(scene);
    kept.questions = {{"connect", 4711, kUser, scene.destination, "allow, count", ""},
                      {"receive", 4711, kUser, scene.destination, "allow", "", "http", 70},
                      {"close", 4711, kUser, scene.destination, "allow", "", "http", 30}};
    kept.run.lines[0].bytes = kept.visits[0].sent = 100;
    EXPECT_TRUE(Judge(scene, kept.run, kept.questions, kept.visits).Passed());
    const std::vector<Break> breaks = {
        {"another protocol", [](Evidence* e) { e->questions[1].protocol = "ssh"; }},
        {"not reported", [](Evidence* e) { e->questions[1].operation = "close"; }},
        {"reported twice", [](Evidence* e) { e->questions.push_back(e->questions[1]); }},
        {"bytes missing", [](Evidence* e) { e->questions[2].bytesReceived = 29; }},
        {"not what was sent", [](Evidence* e) { e->visits[0].sent = 99; }},
        {"not what has come", [](Evidence* e) { e->run.lines[0].bytes = 99; }},
    };
    for (const Break& broken : breaks) {
        Evidence evidence = kept;
        broken.apply(&evidence);
        EXPECT_FALSE(Judge(scene, evidence.run, evidence.questions, evidence.visits).Passed()) << broken.what;
    }
}

TEST(JudgeTest, FindsEveryBrokenPromise) {
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
        {"redirected elsewhere", [](Evidence* e) { e->questions[0].redirect = "203.0.113.201:80"; }},
    };
    const Evidence kept = Kept();
    EXPECT_TRUE(Judge(Redirected(), kept.run, kept.questions, {}).Passed());
    for (const Break& broken : breaks) {
        Evidence evidence = Kept();
        broken.apply(&evidence);
        EXPECT_FALSE(Judge(Redirected(), evidence.run, evidence.questions, {}).Passed()) << broken.what;
    }

    Case identified = Redirected();
    identified.identity = {"Notes", "Demo Ltd"};
    for (const char* title : {"Notes", "<Unknown>"}) {
        for (const char* signer : {"Demo Ltd", ""}) {
            Evidence evidence = Kept();
            evidence.questions[0].windowTitle = title;
            evidence.questions[0].signer = signer;
            const bool right = std::string(title) == "Notes" && std::string(signer) == "Demo Ltd";
            EXPECT_EQ(Judge(identified, evidence.run, evidence.questions, {}).Passed(), right);
        }
    }

    Case slow = Redirected();
    slow.leastMilliseconds = 18000;
    EXPECT_FALSE(Judge(slow, kept.run, kept.questions, {}).Passed()) << "answered too early";

    // What stands in the analyzer's log beside its answers proves nothing.
    EXPECT_FALSE(ParseQuestion("listening on 127.0.0.1:4000"));
    EXPECT_FALSE(ParseQuestion("{\"operation\":"));
}

TEST(JudgeTest, TakesOfAForeignProgramItsPageOrAFailureOfItsOwn) {
    const struct {
        const char* program;
        int exitStatus;
        const char* body;
        bool passes;
    } rows[] = {
        {"curl, allowed", 0, kAlpha, true}, {"curl, allowed", 0, kBeta, false},
        {"curl, allowed", 7, "", false},    {"curl, refused", 7, "", true},
        {"curl, refused", 0, "", false},    {"curl, refused", 139, "", false},
    };
    for (const auto& row : rows) {
        const auto scene = std::find_if(ProgramCases().begin(), ProgramCases().end(),
                                        [&](const Case& candidate) { return candidate.name == row.program; });
        Evidence evidence;
        evidence.run.processId = 4711;
        evidence.run.destination = scene->destination;
        evidence.run.exitStatus = row.exitStatus;
        evidence.run.lines = {{row.exitStatus == 0 ? "" : "connect", 0, "", 0, row.body, "", 0}};
        evidence.questions = {{"connect", 4711, kUser, scene->destination, scene->verdict, ""}};
        EXPECT_EQ(Judge(*scene, evidence.run, evidence.questions, {}).Passed(), row.passes)
            << row.program << " " << row.exitStatus << row.body;
    }
}

TEST(ReportTest, ShowsWhatWasToldAndWhoAnswered) {
    struct Shown {
        std::function<void(Evidence*)> apply;
        const char* text;
    };
    const std::vector<Shown> rows = {
        {[](Evidence*) {}, "process 4711 of DEMO\\alice to 203.0.113.30:80  redirect"},
        {[](Evidence*) {}, "\"beta\", redirected to 203.0.113.200:80"},
        {[](Evidence* e) { e->run.lines[0].body = kAlpha; }, "\"alpha\" from 203.0.113.30:80"},
        {[](Evidence* e) { e->questions[0].processId = 1; }, "process 1 of DEMO\\alice to 203.0.113.30:80"},
        {[](Evidence* e) { e->questions[0].destination = "203.0.113.99:80"; },
         "process 4711 of DEMO\\alice to 203.0.113.99:80"},
        {[](Evidence* e) { e->questions.push_back(e->questions[0]); }, "2 times process 4711"},
        {[](Evidence* e) { e->questions.erase(e->questions.begin()); }, "process 4711: no connect  -"},
        {[](Evidence* e) { e->questions.clear(); }, "nothing"},
    };
    for (const Shown& row : rows) {
        Evidence evidence = Kept();
        row.apply(&evidence);
        std::ostringstream report;
        PrintTable({Judge(Redirected(), evidence.run, evidence.questions, {})}, &report);
        EXPECT_NE(report.str().find(row.text), std::string::npos) << row.text << "\n" << report.str();
    }
}

}  // namespace
