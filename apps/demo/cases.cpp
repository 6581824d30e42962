// The table of cases. 203.0.113.0/24 is set aside for documentation: no packet to it ever leaves the machine.
#include "apps/demo/cases.h"

#include <stdexcept>

namespace {

constexpr int kConnectionRefused = 10061;
constexpr int kConnectionAborted = 10053;

/// A silent analyzer is given up after six waits of three seconds.
constexpr int kPatienceMilliseconds = 18000;
/// So much faster does the clock run where that patience is waited out.
constexpr int kFastClock = 20;

Case& Add(std::vector<Case>* cases, const char* name, const char* destination, const std::string& rule) {
    Case& added = cases->emplace_back();
    added.name = name;
    added.destination = destination;
    added.rule = rule;
    return added;
}

/// A rule that looks for the server's name in what it answers.
std::string LookForAlpha(const std::string& then) {
    return std::string("[[rule.content]]\nfrom = 'server'\npattern = '") + kAlpha + "'\n" + then;
}

/// Connections whose bytes go through the layer's relay and, but for the first, through the analyzer.
void AddSplitCases(std::vector<Case>* cases) {
    const auto add = [cases](const char* name, const char* destination, const std::string& rule,
                             const char* verdict, const char* inspected) -> Case& {
        Case& added = Add(cases, name, destination, rule);
        added.answeredBy = kAlpha;
        added.verdict = verdict;
        added.inspected = inspected;
        return added;
    };
    add("split", "203.0.113.90:80", "flags = 'relay'", "allow, relay", "passed");
    add("inspected", "203.0.113.91:80", "flags = 'inspect'", "allow, inspect", "passed");
    add("inspected and changed", "203.0.113.92:80", LookForAlpha("then = 'replace'\nwith = 'omega'"),
        "allow, inspect", "replaced 1")
        .body = "omega";
    add("refused in mid-stream", "203.0.113.93:80", LookForAlpha("then = 'refuse'"), "allow, inspect",
        "refused")
        .body = "";
    {
        Case& c = add("served by the analyzer", "203.0.113.94:80", "[rule.serve]\nbody = 'served'",
                      "allow, serve", "served 200");
        c.path = "/served";
        c.body = "served";
        c.visits = Visits::None;
    }
    {
        Case& c =
            add("split, server unreachable", "203.0.113.95:80", "flags = 'inspect'", "allow, inspect", "");
        c.server = kNobody;
        c.answeredBy.clear();
        c.error = kConnectionRefused;
        c.connects = true;
    }
    {
        Case& c =
            add("server closes first", "203.0.113.96:80", "flags = 'inspect'", "allow, inspect", "passed");
        c.path = "/bytes/300000";
        c.visits = Visits::Complete;
    }
    {
        Case& c = add("application closes first", "203.0.113.97:80", "flags = 'inspect'", "allow, inspect",
                      "passed");
        c.path = "/bytes/60000000";
        c.closeAfterBytes = 100000;
        c.visits = Visits::Broken;
    }
    {
        Case& c =
            add("100 MiB inspected", "203.0.113.98:80", "flags = 'inspect'", "allow, inspect", "passed");
        c.path = "/bytes/104857600";
        c.visits = Visits::Complete;
    }
    {
        Case& c =
            add("200 inspected at once", "203.0.113.99:7", "flags = 'inspect'", "allow, inspect", "passed");
        c.server = kStreamEcho;
        c.connections = 200;
        c.questions = 200;
        c.body = "200 of 200 connections echoed";
    }
}

/// Sends, receives and binds that the analyzer is told of, and may refuse.
void AddTrafficCases(std::vector<Case>* cases) {
    {
        Case& c = Add(cases, "protocol refused", "203.0.113.100:80", "protocol = 'http'\naction = 'refuse'");
        c.error = kConnectionAborted;
        c.connects = true;
        c.verdict = "allow";
        c.reports = {"send-protocol http"};
        c.path = "/protocol-refused";
        c.visits = Visits::None;
    }
    {
        Case& c = Add(cases, "server's greeting", "203.0.113.101:22", "");
        c.server = kGreeter;
        c.transport = Transport::Greeted;
        c.answeredBy = kGreeter;
        c.verdict = "allow";
        c.reports = {"receive-protocol ssh"};
    }
    {
        Case& c = Add(cases, "bytes counted", "203.0.113.102:80", "flags = 'count'");
        c.answeredBy = kAlpha;
        c.path = "/bytes/300001";
        c.verdict = "allow, count";
        c.visits = Visits::Complete;
        c.countsBytes = true;
    }
    {
        Case& c = Add(cases, "datagrams reported", "203.0.113.103:9000", "flags = 'count'");
        c.server = kEcho;
        c.transport = Transport::Datagram;
        c.answeredBy = kEcho;
        c.questions = 0;
        c.reports = {"send-protocol unknown", "receive unknown"};
    }
    {
        Case& c = Add(cases, "datagram refused", "203.0.113.104:9000", "action = 'refuse'");
        c.server = kEcho;
        c.transport = Transport::Datagram;
        c.error = kConnectionAborted;
        c.connects = true;
        c.questions = 0;
        c.reports = {"send-protocol unknown"};
    }
    {
        Case& c = Add(cases, "bind refused", "203.0.113.105:80", "operation = 'bind'\naction = 'refuse'");
        c.binds = true;
        c.user = "DEMO\\bob";
        c.ruleIsForUser = true;
        c.error = kConnectionAborted;
        c.connects = true;
        c.questions = 0;
        c.reports = {"bind"};
    }
}

std::vector<Case> MakeCases() {
    std::vector<Case> cases;
    const auto add = [&cases](const char* name, const char* destination, const std::string& rule) -> Case& {
        return Add(&cases, name, destination, rule);
    };

    {
        Case& c = add("allowed", "203.0.113.10:80", "action = 'allow'");
        c.answeredBy = kAlpha;
        c.verdict = "allow";
    }
    {
        Case& c = add("refused", "203.0.113.20:80", "action = 'refuse'");
        c.error = kConnectionRefused;
        c.verdict = "refuse";
    }
    {
        Case& c = add("redirected", "203.0.113.30:80",
                      std::string("action = 'redirect'\naddress = '") + kBetaAddress + "'");
        c.answeredBy = kBeta;
        c.verdict = "redirect";
        c.redirect = kBetaAddress;
    }
    {
        Case& c = add("local destination", kLocalDestination, "");
        c.answeredBy = kAlpha;
        c.questions = 0;
    }
    // Both are collected while the application has begun to connect.
    const struct {
        const char* name;
        const char* destination;
        Identity identity;
    } identities[] = {
        {"signed, with a window", "203.0.113.31:80", {"Notes", "Demo Ltd"}},
        {"unsigned, no window", "203.0.113.32:80", {"", ""}},
    };
    for (const auto& row : identities) {
        Case& c = add(row.name, row.destination, "action = 'allow'");
        c.identity = row.identity;
        c.requests = 25;
        c.questions = 25;
        c.answeredBy = kAlpha;
        c.verdict = "allow";
    }
    {
        Case& c = add("analyzer down, policy 0", "203.0.113.40:80", "");
        c.analyzer = AnalyzerState::Down;
        c.answeredBy = kAlpha;
        c.questions = 0;
    }
    {
        Case& c = add("analyzer down, policy 1", "203.0.113.41:80", "");
        c.analyzer = AnalyzerState::Down;
        c.refuseWithoutAnalyzer = true;
        c.error = kConnectionRefused;
        c.questions = 0;
    }
    {
        Case& c = add("analyzer silent, policy 0", "203.0.113.50:80", "behaviour = 'silent'");
        c.answeredBy = kAlpha;
        c.verdict = "silent";
        c.clockRate = kFastClock;
        c.leastMilliseconds = kPatienceMilliseconds;
    }
    {
        Case& c = add("analyzer silent, policy 1", "203.0.113.51:80", "behaviour = 'silent'");
        c.refuseWithoutAnalyzer = true;
        c.error = kConnectionRefused;
        c.verdict = "silent";
        c.clockRate = kFastClock;
        c.leastMilliseconds = kPatienceMilliseconds;
    }
    {
        Case& c = add("analyzer garbage, policy 0", "203.0.113.60:80", "behaviour = 'garbage'");
        c.answeredBy = kAlpha;
        c.verdict = "garbage";
    }
    {
        Case& c = add("analyzer garbage, policy 1", "203.0.113.61:80", "behaviour = 'garbage'");
        c.refuseWithoutAnalyzer = true;
        c.error = kConnectionRefused;
        c.verdict = "garbage";
    }
    {
        // The second request of the process goes through without a question, since the first answer exempted
        // it.
        Case& c = add("process exempted", "203.0.113.70:80", "action = 'allow'\nexempt = true");
        c.requests = 2;
        c.answeredBy = kAlpha;
        c.verdict = "allow, exempt";
    }
    {
        Case& c = add("datagram socket", "203.0.113.80:9000", "action = 'allow'");
        c.server = kEcho;
        c.transport = Transport::Datagram;
        c.answeredBy = kEcho;
        c.questions = 0;
    }
    {
        Case& c = add("window messages", "203.0.113.85:7", "action = 'allow'");
        c.server = kStreamEcho;
        c.transport = Transport::Messages;
        c.answeredBy = kStreamEcho;
        c.verdict = "allow";
    }
    AddTrafficCases(&cases);
    AddSplitCases(&cases);
    return cases;
}

/// What everybody asks of the layer, for each program in turn.
std::vector<Case> MakeProgramCases() {
    std::vector<Case> cases;
    int number = 110;
    for (const char* const program : {"curl", "wget", "python3"}) {
        for (const char* const name :
             {"allowed", "refused", "redirected", "inspected and changed", "served by the analyzer"}) {
            Case& added = cases.emplace_back(CaseNamed(name));
            added.name = std::string(program) + ", " + name;
            added.program = program;
            added.destination = "203.0.113." + std::to_string(number++) + ":80";
            added.path += "/" + std::string(program);
        }
    }
    return cases;
}

}  // namespace

const std::vector<Case>& ProgramCases() {
    static const std::vector<Case> cases = MakeProgramCases();
    return cases;
}

const std::vector<Case>& Cases() {
    static const std::vector<Case> cases = MakeCases();
    return cases;
}

const Case& CaseNamed(const std::string& name) {
    for (const Case& scene : Cases()) {
        if (scene.name == name) return scene;
    }
    throw std::runtime_error("no case " + name);
}
