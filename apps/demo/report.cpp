// Wording and layout of the report; see the header.
#include "apps/demo/report.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <iomanip>
#include <sstream>
#include <string>

namespace {

constexpr std::size_t kColumns = 5;
using Row = std::array<std::string, kColumns>;

std::string Times(std::size_t count) {
    return count > 1 ? std::to_string(count) + " times " : "";
}

std::string Joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : ", ") + word;
    return text;
}

std::string WhatWasTold(const Outcome& outcome) {
    if (outcome.told.empty()) return "nothing";
    if (outcome.questions.empty()) {
        const std::string who = "process " + std::to_string(outcome.told.front().processId) + ": ";
        return who + (outcome.reports.empty() ? "no connect" : Joined(outcome.reports));
    }
    const Question& question = outcome.questions.front();
    std::string told = Times(outcome.questions.size()) + "process " + std::to_string(question.processId) +
                       " of " + question.user + " to " + question.destination;
    if (outcome.scene->identity) {
        const Question& last = outcome.questions.back();
        told += ", " + last.windowTitle + ", " + (last.signer.empty() ? "unsigned" : last.signer);
    }
    return told;
}

std::string Verdict(const Outcome& outcome) {
    if (outcome.questions.empty()) return outcome.scene->reports.empty() ? "-" : outcome.told.front().verdict;
    const std::string& verdict = outcome.questions.front().verdict;
    if (!outcome.scene->reports.empty())
        return verdict + "; " + Joined(outcome.reports) + ": " + outcome.lastReportVerdict;
    return outcome.inspected.empty() ? verdict : verdict + ": " + outcome.inspected.front().verdict;
}

std::string WhatWasSeen(const Outcome& outcome) {
    if (outcome.run.lines.empty()) return "nothing, exit status " + std::to_string(outcome.run.exitStatus);
    const ClientLine& line = outcome.run.lines.back();
    const std::string times = Times(outcome.run.lines.size());
    if (!outcome.scene->program.empty() && !line.failedStep.empty())
        return "exit status " + std::to_string(outcome.run.exitStatus);
    if (!line.failedStep.empty())
        return times + line.failedStep + " failed with " + std::to_string(line.error);
    if (outcome.scene->connections != 0) return line.body;
    // Beta is behind one public address alone, so its name in the answer says where the connection really
    // went.
    const bool redirected = line.body == kBeta && outcome.scene->server != kBeta;
    const std::string from = line.peer.empty() ? "" : " from " + line.peer;
    return times + "\"" + line.body + "\"" +
           (redirected ? std::string(", redirected to ") + kBetaAddress : from);
}

/// As long as the application waited, by its own clock.
std::string Duration(const Outcome& outcome) {
    int milliseconds = 0;
    for (const ClientLine& line : outcome.run.lines)
        milliseconds += line.elapsedMilliseconds;
    if (!outcome.scene->program.empty()) milliseconds = static_cast<int>(outcome.run.realTime.count());
    std::ostringstream text;
    if (milliseconds < 1000) {
        text << milliseconds << " ms";
    } else {
        text << std::fixed << std::setprecision(1) << milliseconds / 1000.0 << " s";
    }
    if (outcome.scene->clockRate != 1) text << " (clock x" << outcome.scene->clockRate << ")";
    return text.str();
}

void PrintRow(const Row& row, const std::array<std::size_t, kColumns>& widths, const std::string& end,
              std::ostream* out) {
    std::string line;
    for (std::size_t i = 0; i < kColumns; ++i)
        line += row[i] + std::string(widths[i] - row[i].size() + 2, ' ');
    line += end;
    *out << line.substr(0, line.find_last_not_of(' ') + 1) << "\n";
}

}  // namespace

void PrintIntroduction(const std::map<std::string, std::string>& serverAddresses, std::ostream* out) {
    const auto server = [&](const char* name) {
        return std::string("\"") + name + "\" (" + serverAddresses.at(name) + ")";
    };
    *out << "Two origin servers answer with their names: " << server(kAlpha)
         << " is behind the public address of every case,\n"
         << server(kBeta) << " behind " << kBetaAddress << " alone, and " << server(kEcho)
         << " echoes datagrams.\n"
         << "What the analyzer was told is read from its own log. When it gives no answer, policy 0 lets the "
            "connect through\nand policy 1 refuses it (10061).\n\n";
}

void PrintTable(const std::vector<Outcome>& outcomes, std::ostream* out) {
    const Row heading = {"case", "the analyzer was told", "its verdict", "the application saw", "took"};
    std::vector<Row> rows;
    rows.reserve(outcomes.size());
    for (const Outcome& outcome : outcomes) {
        rows.push_back({outcome.scene->name, WhatWasTold(outcome), Verdict(outcome), WhatWasSeen(outcome),
                        Duration(outcome)});
    }
    std::array<std::size_t, kColumns> widths = {};
    for (std::size_t i = 0; i < kColumns; ++i) {
        widths[i] = heading[i].size();
        for (const Row& row : rows)
            widths[i] = std::max(widths[i], row[i].size());
    }
    PrintRow(heading, widths, "", out);
    std::size_t passed = 0;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        PrintRow(rows[i], widths, outcomes[i].Passed() ? "ok" : "FAILED", out);
        for (const std::string& problem : outcomes[i].problems)
            *out << "    " << problem << "\n";
        passed += outcomes[i].Passed() ? 1 : 0;
    }
    *out << "\n" << passed << " of " << outcomes.size() << " cases came out as promised\n";
}

void PrintJson(const std::vector<Outcome>& outcomes, std::ostream* out) {
    for (const Outcome& outcome : outcomes) {
        nlohmann::ordered_json questions = nlohmann::ordered_json::array();
        for (const Question& question : outcome.questions) {
            questions.push_back({{"process_id", question.processId},
                                 {"user", question.user},
                                 {"destination", question.destination},
                                 {"verdict", question.verdict},
                                 {"redirect", question.redirect}});
        }
        nlohmann::ordered_json requests = nlohmann::ordered_json::array();
        for (const ClientLine& line : outcome.run.lines) {
            requests.push_back({{"failed", line.failedStep},
                                {"error", line.error},
                                {"peer", line.peer},
                                {"body", line.body},
                                {"elapsed_ms", line.elapsedMilliseconds}});
        }
        const nlohmann::ordered_json line = {
            {"case", outcome.scene->name},
            {"passed", outcome.Passed()},
            {"questions", questions},
            {"requests", requests},
            {"clock_rate", outcome.scene->clockRate},
            {"real_ms", outcome.run.realTime.count()},
            {"problems", outcome.problems},
        };
        *out << line.dump() << "\n";
    }
}
