// See traffic_fixture.h.
#include "tests/relay/traffic_fixture.h"

#include <algorithm>
#include <cstdio>

namespace {

constexpr std::uint32_t kCloseSocket = 2;
constexpr std::uint32_t kFirstOfTheRelay = 7;
constexpr std::uint32_t kLastOfTheRelay = 10;
constexpr std::uint32_t kConnect = 12;
constexpr std::uint32_t kBlock = 1;
constexpr std::uint32_t kKeepFlags = 0x10;

bool Contains(const std::vector<std::uint32_t>& operations, std::uint32_t operation) {
    return std::find(operations.begin(), operations.end(), operation) != operations.end();
}

std::string LineOf(const SeenRequest& request) {
    char text[128];
    std::snprintf(text, sizeof(text), "%u p%x s%u r%u", request.operation, request.protocol,
                  static_cast<unsigned>(request.bytesSent), static_cast<unsigned>(request.bytesReceived));
    std::string line = text;
    if (!request.data.empty()) line += " [" + std::string(request.data.begin(), request.data.end()) + "]";
    return line;
}

}  // namespace

void TrafficFixture::Answer(Rules rules) {
    const ScriptedAnalyzer::Script relay = Splitting(rules.flags);
    analyzer_.SetScript([=](const SeenRequest& request, AnalyzerConnection& connection) {
        if (Contains(rules.silent, request.operation)) return;
        if (!Contains(rules.refused, request.operation)) return relay(request, connection);
        ScriptedAnswer refusal;
        refusal.action = kBlock;
        refusal.flags = kKeepFlags;
        connection.Answer(request, refusal);
    });
}

void TrafficFixture::Play(SOCKET s, LoopbackStream& server, const std::vector<std::string>& steps) {
    for (const std::string& step : steps) {
        const std::string text = step.substr(2);
        if (step[0] == 's') {
            EXPECT_TRUE(SendAll(s, text)) << step << WSAGetLastError();
            EXPECT_EQ(ReadText(server, text.size()), text);
        } else {
            EXPECT_TRUE(server.WriteAll(text.data(), text.size()));
            EXPECT_EQ(ReceiveText(s, text.size()), text);
        }
    }
}

std::vector<std::string> TrafficFixture::Told(std::size_t first) const {
    const std::vector<SeenRequest> requests = analyzer_.Requests();
    std::vector<std::string> lines;
    for (std::size_t i = first; i < requests.size(); ++i) {
        const std::uint32_t operation = requests[i].operation;
        const bool ofTheRelay = operation >= kFirstOfTheRelay && operation <= kLastOfTheRelay;
        if (!ofTheRelay && operation != kConnect) lines.push_back(LineOf(requests[i]));
    }
    return lines;
}

bool TrafficFixture::WaitForCloses(std::size_t count) const {
    for (;;) {
        const std::vector<SeenRequest> requests = analyzer_.Requests();
        const auto closes = std::count_if(requests.begin(), requests.end(), [](const SeenRequest& request) {
            return request.operation == kCloseSocket;
        });
        if (static_cast<std::size_t>(closes) >= count) return true;
        if (!analyzer_.WaitForRequests(requests.size() + 1)) return false;
    }
}
