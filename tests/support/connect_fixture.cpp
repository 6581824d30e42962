// Analyzers that answer by list, and the fixture's parts.
#include "tests/support/connect_fixture.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace {

constexpr std::uint32_t kConnect = 12;
constexpr std::uint32_t kKeepFlags = 0x10;

}  // namespace

ScriptedAnalyzer::Script AnswerInOrder(std::vector<ScriptedAnswer> answers) {
    const auto next = std::make_shared<std::atomic<std::size_t>>(0);
    return [answers = std::move(answers), next](const SeenRequest& request, AnalyzerConnection& connection) {
        ScriptedAnswer keep;
        keep.flags = kKeepFlags;
        const bool connects = request.operation == kConnect;
        connection.Answer(
            request, connects ? answers[std::min(next->fetch_add(1), answers.size() - 1)] : std::move(keep));
    };
}

std::vector<SeenRequest> ConnectFixture::ConnectRequests() const {
    std::vector<SeenRequest> requests = analyzer_.Requests();
    requests.erase(std::remove_if(requests.begin(), requests.end(),
                                  [](const SeenRequest& request) { return request.operation != kConnect; }),
                   requests.end());
    return requests;
}

std::size_t ConnectFixture::CountRequests(std::uint32_t operation) const {
    const std::vector<SeenRequest> requests = analyzer_.Requests();
    return static_cast<std::size_t>(
        std::count_if(requests.begin(), requests.end(),
                      [&](const SeenRequest& request) { return request.operation == operation; }));
}
