// See split_fixture.h.
#include "tests/relay/split_fixture.h"

#include <algorithm>
#include <cctype>

namespace {

constexpr std::uint32_t kCloseSocket = 2;
constexpr std::uint32_t kClientClosed = 7;
constexpr std::uint32_t kServerClosed = 8;
constexpr std::uint32_t kClientData = 9;
constexpr std::uint32_t kServerData = 10;
constexpr std::uint32_t kConnect = 12;
constexpr std::uint32_t kKeepFlags = 0x10;
constexpr std::uint32_t kSendToClient = 3;
constexpr std::uint32_t kSendToServer = 4;
constexpr std::uint32_t kCloseClient = 5;
constexpr std::uint32_t kCloseServer = 6;

ScriptedAnswer Answer(std::uint32_t action, std::vector<std::uint8_t> data = {}) {
    ScriptedAnswer answer;
    answer.action = action;
    answer.data = std::move(data);
    return answer;
}

std::vector<std::uint8_t> Capitals(std::vector<std::uint8_t> data) {
    for (std::uint8_t& byte : data)
        byte = static_cast<std::uint8_t>(std::toupper(byte));
    return data;
}

void Inspect(const SeenRequest& request, AnalyzerConnection& connection, Inspector inspector) {
    const bool fromClient = request.operation == kClientData;
    const std::uint32_t onward = fromClient ? kSendToServer : kSendToClient;
    switch (inspector) {
        case Inspector::kPassOn:
            connection.Answer(request, Answer(onward, request.data));
            break;
        case Inspector::kChange:
            connection.Answer(request, Answer(onward, Capitals(request.data)));
            break;
        case Inspector::kServe:
            connection.Answer(request, Answer(kSendToClient, Capitals(request.data)));
            break;
        case Inspector::kHold:
            break;
    }
}

}  // namespace

ScriptedAnalyzer::Script SplitFixture::Splitting(std::uint32_t flags, Inspector inspector) {
    return [=](const SeenRequest& request, AnalyzerConnection& connection) {
        switch (request.operation) {
            case kConnect: {
                ScriptedAnswer verdict;
                verdict.flags = flags;
                connection.Answer(request, verdict);
                break;
            }
            case kClientData:
            case kServerData:
                Inspect(request, connection, inspector);
                break;
            case kClientClosed:
                connection.Answer(request, Answer(kCloseServer));
                break;
            case kServerClosed:
                connection.Answer(request, Answer(kCloseClient));
                break;
            case kCloseSocket:
                break;
            default: {
                ScriptedAnswer answer;
                answer.flags = kKeepFlags;
                connection.Answer(request, answer);
            }
        }
    };
}

SOCKET SplitFixture::ConnectSplit(LoopbackStream& server) {
    const SOCKET s = StreamSocket();
    const int error = ConnectToPublic(s);
    EXPECT_EQ(error, 0);
    if (error != 0) return s;
    EXPECT_TRUE(origin_.Accept(server));
    return s;
}

bool SplitFixture::SendAll(SOCKET s, const std::string& text) {
    std::size_t sent = 0;
    while (sent < text.size()) {
        const int result = send(s, text.data() + sent, static_cast<int>(text.size() - sent), 0);
        if (result <= 0) return false;
        sent += static_cast<std::size_t>(result);
    }
    return true;
}

std::string SplitFixture::ReceiveText(SOCKET s, std::size_t size) {
    std::string text;
    char buffer[16384];
    while (text.size() < size) {
        const int result = recv(s, buffer, static_cast<int>(std::min(size - text.size(), sizeof(buffer))), 0);
        if (result == 0) break;
        if (result < 0) return text + "[" + std::to_string(WSAGetLastError()) + "]";
        text.append(buffer, static_cast<std::size_t>(result));
    }
    return text;
}

std::string SplitFixture::ReadText(LoopbackStream& stream, std::size_t size) {
    std::string text(size, '\0');
    std::size_t read = 0;
    while (read < size) {
        const std::size_t count = stream.ReadSome(&text[read], size - read);
        if (count == 0) break;
        read += count;
    }
    text.resize(read);
    return text;
}
