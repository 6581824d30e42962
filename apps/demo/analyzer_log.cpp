// Reading of the analyzer's log; see the header.
#include "apps/demo/analyzer_log.h"

#include <nlohmann/json.hpp>

namespace {

std::string Joined(const nlohmann::json& words) {
    std::string text;
    for (const nlohmann::json& word : words) {
        if (word.is_string()) text += (text.empty() ? "" : ", ") + word.get<std::string>();
    }
    return text;
}

}  // namespace

std::optional<Question> ParseQuestion(const std::string& line) {
    const nlohmann::json json = nlohmann::json::parse(line, nullptr, false);
    if (!json.is_object()) return std::nullopt;
    const bool ended = json.contains(kInspected);
    if (!ended && !json.contains("operation")) return std::nullopt;
    Question question;
    question.operation = ended ? kInspected : json.value("operation", "");
    question.processId = json.value("process_id", 0);
    question.protocol = json.value("protocol_name", "");
    question.bytesReceived = json.value("bytes_received", std::uint64_t(0));
    question.user = json.value("user", "");
    question.destination = json.value("destination", "");
    if (ended) {
        question.verdict = Joined(json[kInspected]);
        return question;
    }
    const std::string behaviour = json.value("behaviour", "");
    question.verdict = behaviour == "answer" ? json.value("action", "") : behaviour;
    const std::string flags = Joined(json.value("verdict_flags", nlohmann::json::array()));
    if (!flags.empty()) question.verdict += ", " + flags;
    if (json.value("exempt", false)) question.verdict += ", exempt";
    question.redirect = json.value("redirect", "");
    question.windowTitle = json.value("window", "");
    question.signer = json.value("signer", "");
    return question;
}

std::vector<Question> QuestionsAbout(const std::vector<Question>& questions, int processId,
                                     const std::string& destination) {
    std::vector<Question> about;
    for (const Question& question : questions) {
        if (question.processId == processId || question.destination == destination) about.push_back(question);
    }
    return about;
}

std::vector<Question> QuestionsOf(const std::string& operation, const std::vector<Question>& questions) {
    std::vector<Question> asked;
    for (const Question& question : questions) {
        if (question.operation == operation) asked.push_back(question);
    }
    return asked;
}
