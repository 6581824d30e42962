// The table of cases. 203.0.113.0/24 is set aside for documentation: no packet to it ever leaves the machine.
#include "apps/demo/cases.h"

#include <stdexcept>

namespace {

constexpr int kConnectionRefused = 10061;

/// A silent analyzer is given up after six waits of three seconds.
constexpr int kPatienceMilliseconds = 18000;
/// So much faster does the clock run where that patience is waited out.
constexpr int kFastClock = 20;

std::vector<Case> MakeCases() {
    std::vector<Case> cases;
    const auto add = [&cases](const char* name, const char* destination, const std::string& rule) -> Case& {
        Case& added = cases.emplace_back();
        added.name = name;
        added.destination = destination;
        added.rule = rule;
        return added;
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
    return cases;
}

}  // namespace

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
