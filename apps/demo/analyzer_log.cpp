// Reading of the analyzer's log; see the header.
#include "apps/demo/analyzer_log.h"

#include <nlohmann/json.hpp>

std::optional<Question> ParseQuestion(const std::string& line) {
    const nlohmann::json json = nlohmann::json::parse(line, nullptr, false);
    if (!json.is_object() || !json.contains("operation")) return std::nullopt;
    Question question;
    question.operation = json.value("operation", "");
    question.processId = json.value("process_id", 0);
    question.user = json.value("user", "");
    question.destination = json.value("destination", "");
    const std::string behaviour = json.value("behaviour", "");
    question.verdict = behaviour == "answer" ? json.value("action", "") : behaviour;
    if (json.value("exempt", false)) question.verdict += ", exempt";
    question.redirect = json.value("redirect", "");
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

std::vector<Question> ConnectQuestions(const std::vector<Question>& questions) {
    std::vector<Question> asked;
    for (const Question& question : questions) {
        if (question.operation == "connect") asked.push_back(question);
    }
    return asked;
}
