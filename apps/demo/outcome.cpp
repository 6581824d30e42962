// What each promise means in terms of the application's lines and the analyzer's questions.
#include "apps/demo/outcome.h"

namespace {

using Problems = std::vector<std::string>;

template <typename Value>
std::string ToText(const Value& value) {
    return std::to_string(value);
}
std::string ToText(const std::string& value) {
    return "\"" + value + "\"";
}

template <typename Value>
void Expect(const std::string& what, const Value& promised, const Value& seen, Problems* problems) {
    if (promised != seen)
        problems->push_back(what + ": promised " + ToText(promised) + ", saw " + ToText(seen));
}

/// A program that knows nothing of the layer has error numbers of its own, and prints the page alone. From
/// 125 on, it was not the program itself that ended so.
void JudgeProgram(const Case& scene, const ClientRun& run, const ClientLine& line, Problems* problems) {
    constexpr int kNotItsOwn = 125;
    const bool promised = !scene.answeredBy.empty();
    if (promised ? run.exitStatus != 0 : run.exitStatus == 0 || run.exitStatus >= kNotItsOwn)
        problems->push_back("exit status: " + ToText(run.exitStatus));
    if (promised) Expect("server", scene.body.value_or(scene.answeredBy), line.body, problems);
}

void JudgeAnswer(const Case& scene, const ClientRun& run, const ClientLine& line, Problems* problems) {
    if (!scene.program.empty()) return JudgeProgram(scene, run, line, problems);
    Expect("error", scene.error, line.error, problems);
    if (scene.answeredBy.empty()) {
        if (line.failedStep.empty() || scene.connects == (line.failedStep == "connect"))
            problems->push_back("it failed at " + line.failedStep);
        return;
    }
    if (scene.connections != 0) return Expect("outcome", *scene.body, line.body, problems);
    // The peer is always what was asked for, whoever answers.
    Expect("peer", run.destination, line.peer, problems);
    if (scene.transport == Transport::Stream) {
        Expect("status", 200, line.status, problems);
        Expect("server", scene.body.value_or(scene.answeredBy), line.body, problems);
    } else if (scene.transport == Transport::Greeted) {
        Expect<std::string>("greeting", kGreeting, line.body, problems);
    } else if (scene.transport == Transport::Messages) {
        Expect<std::string>("echo", "/hello", line.body, problems);
    } else {
        Expect("echo", scene.answeredBy + " /hello", line.body, problems);
    }
}

void JudgeSplit(const Case& scene, const ClientRun& run, const std::vector<Question>& inspected,
                const std::vector<Visit>& allVisits, Problems* problems) {
    if (!scene.inspected.empty())
        Expect("split connections", static_cast<std::size_t>(scene.questions), inspected.size(), problems);
    for (const Question& end : inspected) {
        // Of a connection that never was the analyzer may have been told an end, or nothing.
        if (!scene.inspected.empty()) Expect("inspection", scene.inspected, end.verdict, problems);
        Expect("process inspected", run.processId, end.processId, problems);
    }
    if (scene.visits == Visits::NotLookedAt) return;
    std::vector<Visit> visits;
    for (const Visit& visit : allVisits) {
        if (visit.request.find(" " + scene.path + " ") != std::string::npos) visits.push_back(visit);
    }
    Expect<std::size_t>("visits", scene.visits == Visits::None ? 0 : 1, visits.size(), problems);
    for (const Visit& visit : visits) {
        Expect<std::size_t>("complete", scene.visits == Visits::Complete ? 1 : 0, visit.complete ? 1 : 0,
                            problems);
        if (scene.visits != Visits::Complete || run.lines.empty()) continue;
        Expect("checksum", visit.checksum, run.lines.front().checksum, problems);
    }
}

/// "receive-protocol ssh" for each thing that was told beside connects, closes and split connections.
void CollectReports(Outcome* outcome) {
    for (const Question& question : outcome->told) {
        if (question.operation == "connect" || question.operation == "close") continue;
        if (question.operation == kInspected) continue;
        const bool isKnown = !question.protocol.empty() && question.protocol != "none";
        outcome->reports.push_back(question.operation + (isKnown ? " " + question.protocol : ""));
        outcome->lastReportVerdict = question.verdict;
    }
}

std::string Joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : ", ") + word;
    return text;
}

void JudgeReports(const Case& scene, const Outcome& outcome, const std::vector<Visit>& allVisits,
                  Problems* problems) {
    if (!scene.reports.empty()) Expect("reports", Joined(scene.reports), Joined(outcome.reports), problems);
    if (!scene.countsBytes || outcome.run.lines.empty()) return;
    std::uint64_t received = 0;
    for (const Question& question : outcome.told)
        received += question.bytesReceived;
    Expect("bytes told", outcome.run.lines.front().bytes, received, problems);
    for (const Visit& visit : allVisits) {
        if (visit.request.find(" " + scene.path + " ") != std::string::npos)
            Expect("bytes sent", visit.sent, received, problems);
    }
}

}  // namespace

Outcome Judge(const Case& scene, const ClientRun& run, const std::vector<Question>& allQuestions,
              const std::vector<Visit>& allVisits) {
    Outcome outcome;
    outcome.scene = &scene;
    outcome.run = run;
    outcome.told = QuestionsAbout(allQuestions, run.processId, run.destination);
    outcome.questions = QuestionsOf("connect", outcome.told);
    outcome.inspected = QuestionsOf(kInspected, outcome.told);
    Problems* const problems = &outcome.problems;

    if (scene.program.empty())
        Expect("exit status", scene.answeredBy.empty() ? 1 : 0, run.exitStatus, problems);
    Expect<std::size_t>("requests", static_cast<std::size_t>(scene.requests), run.lines.size(), problems);
    for (const ClientLine& line : run.lines) {
        JudgeAnswer(scene, run, line, problems);
        if (line.elapsedMilliseconds < scene.leastMilliseconds) {
            problems->push_back("ended after " + std::to_string(line.elapsedMilliseconds) +
                                " ms, promised at least " + std::to_string(scene.leastMilliseconds));
        }
    }
    Expect<std::size_t>("questions", static_cast<std::size_t>(scene.questions), outcome.questions.size(),
                        problems);
    for (const Question& question : outcome.questions) {
        Expect("process told", run.processId, question.processId, problems);
        Expect("destination told", run.destination, question.destination, problems);
        Expect("user told", scene.user, question.user, problems);
        Expect("verdict", scene.verdict, question.verdict, problems);
        Expect("redirect", scene.redirect, question.redirect, problems);
    }
    if (scene.identity && !outcome.questions.empty()) {
        const Question& last = outcome.questions.back();
        const std::string& title = scene.identity->title;
        Expect<std::string>("title told", title.empty() ? "<Unknown>" : title, last.windowTitle, problems);
        Expect("signer told", scene.identity->signer, last.signer, problems);
    }
    JudgeSplit(scene, run, outcome.inspected, allVisits, problems);
    CollectReports(&outcome);
    JudgeReports(scene, outcome, allVisits, problems);
    return outcome;
}
