// What the reference analyzer was told and what it said to it, read back from the JSON lines of its log.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// One request to the analyzer.
struct Question {
    std::string operation;
    int processId = 0;
    std::string user;
    std::string destination;
    /// "allow", "refuse" or "redirect", with the flags of the verdict and ", exempt" when the process is left
    /// alone from now on; or how the analyzer misbehaved: "silent", "garbage" or "close". Of a split
    /// connection that has ended (operation kInspected) what was done with its bytes.
    std::string verdict;
    /// Where it redirects to; empty for other verdicts.
    std::string redirect;
    std::string protocol = {};  ///< its name
    std::uint64_t bytesReceived = 0;
    std::string windowTitle = {};
    std::string signer = {};
};

/// In the place of an operation: the end of a split connection.
constexpr const char* kInspected = "inspected";

/// Nothing for a line that is neither a request nor the end of a split connection.
std::optional<Question> ParseQuestion(const std::string& line);

/// Everything that names the process or the destination, in order: also what names one of them wrongly.
std::vector<Question> QuestionsAbout(const std::vector<Question>& questions, int processId,
                                     const std::string& destination);

/// Those of one operation, in order.
std::vector<Question> QuestionsOf(const std::string& operation, const std::vector<Question>& questions);
