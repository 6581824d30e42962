// What the reference analyzer was told and what it said to it, read back from the JSON lines of its log.
#pragma once

#include <optional>
#include <string>
#include <vector>

/// One request to the analyzer.
struct Question {
    std::string operation;
    int processId = 0;
    std::string user;
    std::string destination;
    /// "allow", "refuse" or "redirect", with ", exempt" when the process is left alone from now on; or how
    /// the analyzer misbehaved: "silent", "garbage" or "close".
    std::string verdict;
};

/// Nothing for a line that is no request.
std::optional<Question> ParseQuestion(const std::string& line);

/// The questions about connects that the process asked, in order.
std::vector<Question> ConnectQuestions(const std::vector<Question>& questions, int processId);
