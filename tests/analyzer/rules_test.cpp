// Which rule decides, and how clearly a wrong rule file is refused.
#include "analyzer/rules.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "tests/analyzer/test_folder.h"

namespace {

constexpr char kRules[] = R"(
[default]
action = "refuse"

[[rule]]
name = "first"
operation = ["connect", "bind"]
destination = ["203.0.113.0/24", "198.51.100.7"]
port = [80, "8000-8999"]

[[rule]]
name = "user"
user = ['DEMO\b*', "root"]

[[rule]]
name = "program"
window = "*- Browser"
signer = "Demo ?igner"

[[rule]]
name = "process"
process_id = [77, 78]

[[rule]]
name = "protocol"
protocol = ["ssh", "unknown"]
)";

Request Asking(std::uint32_t address, std::uint16_t port) {
    Request request;
    request.operation = OperationByName("connect");
    request.destination = {address, port};
    return request;
}

TEST(Rules, TheFirstRuleWhoseConditionsAllHoldDecides) {
    const RuleSet rules = RuleSet::FromText(kRules, "rules");
    constexpr std::uint32_t inNetwork = 0xCB0071FF;
    constexpr std::uint32_t behindNetwork = 0xCB007200;
    EXPECT_EQ(rules.Decide(Asking(inNetwork, 80)).name, "first");
    EXPECT_EQ(rules.Decide(Asking(inNetwork, 8999)).name, "first");
    EXPECT_EQ(rules.Decide(Asking(0xC6336407, 8000)).name, "first");
    EXPECT_EQ(rules.Decide(Asking(inNetwork, 9000)).name, "default");
    EXPECT_EQ(rules.Decide(Asking(behindNetwork, 80)).name, "default");
    EXPECT_EQ(rules.Decide(Asking(inNetwork, 9000)).verdict.action, RuleAction::kRefuse);

    Request request = Asking(inNetwork, 80);
    request.operation = OperationByName("close");
    EXPECT_EQ(rules.Decide(request).name, "default");
    request.operation = 99;
    EXPECT_EQ(rules.Decide(request).name, "default");
    request.user = "DEMO\\bob";
    EXPECT_EQ(rules.Decide(request).name, "user");
    request.user = "DEMO\\alice";
    request.window = "News - Browser";
    EXPECT_EQ(rules.Decide(request).name, "default") << "the signer doesn't fit";
    request.signer = "Demo Signer";
    EXPECT_EQ(rules.Decide(request).name, "program");
    request.signer.clear();
    request.processId = 78;
    EXPECT_EQ(rules.Decide(request).name, "process");

    request.processId = 0;
    request.protocol = 0x80000000;
    EXPECT_EQ(rules.Decide(request).name, "protocol");
    request.protocol = 0x1;
    EXPECT_EQ(rules.Decide(request).name, "default");

    EXPECT_EQ(RuleSet().Decide(request).verdict.action, RuleAction::kAllow);
    EXPECT_EQ(RuleSet::FromText("[[rule]]\ndestination = \"0.0.0.0/0\"", "r").Decide(request).name, "rule 1");
}

TEST(Rules, Patterns) {
    EXPECT_TRUE(FitsPattern("", ""));
    EXPECT_TRUE(FitsPattern("abcbc", "a*bc"));
    EXPECT_TRUE(FitsPattern("abc", "***"));
    EXPECT_FALSE(FitsPattern("abcd", "a*bc"));
    EXPECT_FALSE(FitsPattern("a", "a?"));
    EXPECT_TRUE(FitsPattern("M\xC3\xBCller", "M?ller")) << "a character is not a byte";
    EXPECT_FALSE(FitsPattern("M\xC3\xBCller", "M??ller"));
    EXPECT_TRUE(FitsPattern("\xE2\x82\xAC", "*?"));
    // A hostile title must not take exponential time.
    EXPECT_FALSE(FitsPattern(std::string(2048, 'a'), "*a*a*a*a*a*a*a*a*a*a*b"));
}

TEST(Rules, VerdictsAreReadWhole) {
    const RuleSet rules = RuleSet::FromText(
        "[[rule]]\naction = \"redirect\"\naddress = \"127.0.0.1:41080\"\nflags = [\"count\", \"keep\", "
        "\"relay\"]\n"
        "exempt = true\nbehaviour = \"garbage\"\ndelay_ms = 250\n",
        "rules");
    const Verdict& verdict = rules.Decide(Request()).verdict;
    EXPECT_EQ(verdict.action, RuleAction::kRedirect);
    EXPECT_EQ(ToText(verdict.redirect), "127.0.0.1:41080");
    EXPECT_EQ(verdict.flags, 0x19u);
    EXPECT_TRUE(verdict.exempt);
    EXPECT_EQ(verdict.behaviour, Behaviour::kGarbage);
    EXPECT_EQ(verdict.delayMilliseconds, 250u);
}

TEST(Rules, APlanIsReadWhole) {
    const TestFolder folder;
    std::ofstream(folder / "page.html") << "<p>no</p>";
    std::ofstream(folder / "rules.toml")
        << "[[rule]]\nport = 1\nhold_ms = 20\n[[rule.content]]\nfrom = 'client'\npattern = 'a\\.b'\n"
           "first_bytes = 65536\nthen = 'replace'\nwith = 'c'\n[[rule.content]]\nfrom = 'server'\n"
           "pattern = 'x'\nthen = 'cut-server'\n"
           "[[rule]]\nport = 2\n[rule.serve]\nfile = 'page.html'\nstatus = 451\n"
           "[default]\nhold_ms = 1\n";
    const RuleSet rules = RuleSet::FromFile(folder / "rules.toml");
    const Verdict& changed = rules.Decide(Asking(0, 1)).verdict;
    EXPECT_EQ(changed.flags, 0x04u);
    EXPECT_EQ(changed.plan->holdMilliseconds, 20u);
    ASSERT_EQ(changed.plan->contents.size(), 2u);
    EXPECT_EQ(changed.plan->contents[0].from, Side::kClient);
    EXPECT_EQ(changed.plan->contents[0].firstBytes, 65536u);
    EXPECT_EQ(changed.plan->contents[0].with, "c");
    EXPECT_EQ(changed.plan->contents[1].then, ContentAction::kCutServer);
    const Verdict& served = rules.Decide(Asking(0, 2)).verdict;
    EXPECT_EQ(served.flags, 0x20u);
    EXPECT_EQ(served.plan->page->body, "<p>no</p>");
    EXPECT_EQ(served.plan->page->status, 451u);
    EXPECT_EQ(rules.Decide(Asking(0, 3)).verdict.plan->holdMilliseconds, 1u);
    EXPECT_EQ(RuleSet().Decide(Asking(0, 3)).verdict.plan, nullptr);
}

TEST(Rules, WhatIsWrongIsNamedWithItsPlace) {
#define CONTENT "[[rule]]\n[[rule.content]]\nfrom = \"client\"\npattern = \"a\"\n"
    const struct {
        const char* text;
        const char* start;
    } cases[] = {
        {"", "f: there is neither a rule nor [default]"},
        {"# [[rule]]\nrule = []", "f: there is neither a rule nor [default]"},
        {"[[rule]\n", "f:1:8: "},
        {"\n[[rule]]\naction = \"alow\"", "f:3:10: there is no action \"alow\""},
        {"[[rule]]\n  actoin = \"allow\"", "f:2:3: there is no key \"actoin\""},
        {"[[rules]]\n", "f:1:3: there is no key \"rules\""},
        {"[rule]\n", "f:1:1: rules are written as [[rule]]"},
        {"[[rule]]\nport = [80,\n 65536]", "f:3:2: expected a number"},
        {"[[rule]]\nport = \"90-80\"", "f:2:8: expected a port"},
        {"[[rule]]\ndestination = \"10.0.0.1/8\"", "f:2:15: the address has bits"},
        {"[[rule]]\ndestination = \"10.0.0.0/33\"", "f:2:15: expected an address"},
        {"[[rule]]\ndestination = \"10.0.0\"", "f:2:15: expected an address"},
        {"[[rule]]\ndestination = \"10.0.0.256\"", "f:2:15: expected an address"},
        {"[[rule]]\ndestination = \"01.2.3.4\"", "f:2:15: expected an address"},
        {"[[rule]]\ndestination = \"1.2.3.0/024\"", "f:2:15: expected an address"},
        {"[[rule]]\noperation = \"dance\"", "f:2:13: there is no operation"},
        {"[[rule]]\noperation = []", "f:2:13: the list is empty"},
        {"[[rule]]\nflags = \"counts\"", "f:2:9: there is no flag"},
        {"[[rule]]\nuser = 5", "f:2:8: expected a text"},
        {"[[rule]]\nexempt = 1", "f:2:10: expected true or false"},
        {"[[rule]]\ndelay_ms = -1", "f:2:12: expected a number"},
        {"[[rule]]\naction = \"redirect\"", "f:2:10: redirect needs an address"},
        {"[[rule]]\naction = \"redirect\"\naddress = \"127.0.0.1\"", "f:3:11: expected an address and port"},
        {"[[rule]]\naction = \"redirect\"\naddress = \"0.0.0.0:80\"", "f:3:11: no host has"},
        {"[default]\naction = \"redirect\"\naddress = \"255.255.255.255:80\"", "f:3:11: no host has"},
        {"[[rule]]\naction = \"redirect\"\naddress = \"127.0.0.01:80\"", "f:3:11: expected an address"},
        {"[[rule]]\nflags = \"count\"\naction = \"refuse\"", "f:2:9: what is refused takes no flags"},
        {"[[rule]]\naddress = \"127.0.0.1:1\"", "f:2:11: only redirect takes an address"},
        {"[[rule]]\noperation = \"client-data\"", "f:2:13: a rule that decides about the connect"},
        {"[[rule]]\nflags = \"serve\"", "f:2:9: serve needs a page"},
        {"[[rule]]\naction = \"refuse\"\nhold_ms = 5", "f:3:11: only what is allowed"},
        {"[[rule]]\nflags = \"keep\"\nhold_ms = 5", "f:2:9: with keep nothing"},
        {"[[rule]]\noperation = \"bind\"\nhold_ms = 5", "f:3:11: this goes with a connect"},
        {"[[rule]]\nhold_ms = 600001", "f:2:11: expected a number"},
        {"[[rule]]\ncontent = 5", "f:2:11: what is looked for is written as [[rule.content]]"},
        {"[[rule]]\n[[rule.content]]\npattern = \"a\"", "f:2:1: a content needs"},
        {"[[rule]]\n[[rule.content]]\nfrom = \"me\"\npattern = \"a\"\nthen = \"refuse\"",
         "f:3:8: there is no side \"me\""},
        {CONTENT "then = \"replace\"", "f:5:8: replace needs \"with\""},
        {CONTENT "then = \"refuse\"\nwith = \"\"", "f:6:8: only replace takes"},
        {CONTENT "then = \"refuse\"\nfirst_bytes = 0", "f:6:15: expected a number"},
        {CONTENT "then = \"refuse\"\nkey = 1", "f:6:1: there is no key"},
        {"[[rule]]\n[[rule.content]]\nfrom = \"client\"\nthen = \"refuse\"\npattern = \"(a\"",
         "f:5:11: the pattern is no regular expression"},
        {"[[rule]]\n[[rule.content]]\nfrom = \"client\"\nthen = \"refuse\"\npattern = \"a*\"",
         "f:5:11: the pattern fits nothing at all"},
        {CONTENT "then = \"refuse\"\n[rule.serve]\nbody = \"\"", "f:2:1: what is served has no content"},
        {"[[rule]]\n[rule.serve]\nstatus = 403", "f:2:1: a page has either"},
        {"[[rule]]\n[rule.serve]\nbody = \"\"\nfile = \"a\"", "f:2:1: a page has either"},
        {"[[rule]]\n[rule.serve]\nbody = \"\"\nstatus = 100", "f:4:10: expected a number"},
        {"[[rule]]\n[rule.serve]\nbody = \"\"\ntype = \"a\\r\\nb\"", "f:4:8: it is no content type"},
        {"[[rule]]\n[rule.serve]\nfile = \"/nonexistent/page\"", "f:3:8: cannot read /nonexistent/page"},
    };
    for (const auto& wrong : cases) {
        SCOPED_TRACE(wrong.text);
        try {
            RuleSet::FromText(wrong.text, "f");
            ADD_FAILURE() << "accepted";
        } catch (const RuleError& error) {
            EXPECT_EQ(std::string(error.what()).substr(0, std::string(wrong.start).size()), wrong.start);
        }
    }
    EXPECT_THROW(RuleSet::FromFile("/nonexistent/rules.toml"), RuleError);
    EXPECT_NO_THROW(RuleSet::FromFile(QX_SOURCE_DIR "/analyzer/example-rules.toml"));
}

}  // namespace
