// The analyzer's threads, and the reading of what they are asked.
#include "tests/support/scripted_analyzer.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <utility>

namespace {

constexpr auto kPatience = std::chrono::seconds(20);
constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kLargestFrame = 1u << 24;

/// Takes values off the front of the fields; what lies beyond the end reads as zeros and is remembered.
class FieldReader {
  public:
    FieldReader(const std::vector<std::uint8_t>& frame, std::size_t offset) : frame_(frame), next_(offset) {}

    void Block(void* destination, std::size_t size) {
        if (frame_.size() - next_ < size) {
            complete_ = false;
            return;
        }
        std::memcpy(destination, frame_.data() + next_, size);
        next_ += size;
    }

    template <class T = std::uint32_t>
    T Number() {
        T value = 0;
        Block(&value, sizeof(value));
        return value;
    }

    std::string Text() {
        const std::uint32_t length = Number();
        if (length > frame_.size() - next_) {
            complete_ = false;
            return {};
        }
        std::string text(length, '\0');
        Block(text.data(), length);
        return text;
    }

    bool AtEnd() const { return complete_ && next_ == frame_.size(); }

  private:
    const std::vector<std::uint8_t>& frame_;
    std::size_t next_;
    bool complete_ = true;
};

void Append(std::vector<std::uint8_t>& frame, std::uint32_t word) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&word);
    frame.insert(frame.end(), bytes, bytes + sizeof(word));
}

/// The 128 bytes of "127.0.0.1:8080": family, port in network order, number.
std::array<std::uint8_t, 128> Storage(const std::string& endpoint) {
    std::array<std::uint8_t, 128> storage{};
    unsigned octet[4] = {};
    unsigned port = 0;
    if (std::sscanf(endpoint.c_str(), "%u.%u.%u.%u:%u", &octet[0], &octet[1], &octet[2], &octet[3], &port) !=
        5) {
        return storage;
    }
    storage[0] = 2;
    storage[2] = static_cast<std::uint8_t>(port >> 8);
    storage[3] = static_cast<std::uint8_t>(port);
    for (std::size_t i = 0; i < 4; ++i)
        storage[4 + i] = static_cast<std::uint8_t>(octet[i]);
    return storage;
}

std::vector<std::uint8_t> ReadFrame(LoopbackStream& stream) {
    std::vector<std::uint8_t> frame(kHeaderSize);
    if (!stream.ReadExactly(frame.data(), frame.size())) return {};
    std::uint32_t total;
    std::memcpy(&total, frame.data(), sizeof(total));
    if (total < kHeaderSize || total > kLargestFrame) return {};
    frame.resize(total);
    if (!stream.ReadExactly(frame.data() + kHeaderSize, total - kHeaderSize)) return {};
    return frame;
}

/// Null for a frame that isn't a request.
std::unique_ptr<SeenRequest> DecodeRequest(const std::vector<std::uint8_t>& frame) {
    std::uint32_t words[2];
    if (frame.size() < sizeof(words)) return nullptr;
    std::memcpy(words, frame.data(), sizeof(words));
    if (words[0] != frame.size() || words[1] < kHeaderSize || words[1] > frame.size()) return nullptr;

    auto request = std::make_unique<SeenRequest>();
    request->data.assign(frame.begin() + kHeaderSize, frame.begin() + words[1]);
    FieldReader fields(frame, words[1]);
    request->messageId = fields.Number();
    request->processId = fields.Number();
    request->localPort = static_cast<std::uint16_t>(fields.Number());
    fields.Block(request->localAddress.data(), request->localAddress.size());
    request->remotePort = static_cast<std::uint16_t>(fields.Number());
    fields.Block(request->remoteAddress.data(), request->remoteAddress.size());
    request->socketType = fields.Number();
    request->userName = fields.Text();
    request->protocol = fields.Number();
    const std::uint32_t reserved = fields.Number();
    request->flags = fields.Number();
    request->windowTitle = fields.Text();
    request->imageSigner = fields.Text();
    request->bytesSent = fields.Number<std::uint64_t>();
    request->bytesReceived = fields.Number<std::uint64_t>();
    request->messageType = fields.Number();
    request->operation = fields.Number();
    if (!fields.AtEnd() || reserved != 0) return nullptr;
    return request;
}

}  // namespace

std::string SeenRequest::Destination() const {
    std::string text;
    for (std::size_t i = 0; i < 4; ++i)
        text += std::to_string(remoteAddress[i]) + (i < 3 ? "." : ":");
    return text + std::to_string(remotePort);
}

std::vector<std::uint8_t> AnswerFrame(const ScriptedAnswer& answer) {
    constexpr std::size_t kFieldsSize = 148;
    std::vector<std::uint8_t> frame;
    Append(frame, static_cast<std::uint32_t>(kHeaderSize + answer.data.size() + kFieldsSize));
    Append(frame, static_cast<std::uint32_t>(kHeaderSize + answer.data.size()));
    frame.insert(frame.end(), answer.data.begin(), answer.data.end());
    Append(frame, answer.messageId);
    Append(frame, answer.requestId);
    Append(frame, answer.exemptProcessId);
    Append(frame, answer.action);
    const auto redirect = Storage(answer.redirectTo);
    frame.insert(frame.end(), redirect.begin(), redirect.end());
    Append(frame, answer.flags);
    return frame;
}

void AnalyzerConnection::Answer(const SeenRequest& request, ScriptedAnswer answer) {
    answer.requestId = request.messageId;
    Send(AnswerFrame(answer));
}

bool AnalyzerConnection::Send(const std::vector<std::uint8_t>& bytes) {
    return stream_.WriteAll(bytes.data(), bytes.size());
}

void AnalyzerConnection::Close() {
    stream_.Interrupt();
}

void AnalyzerConnection::Reset() {
    stream_.ResetPeer();
}

ScriptedAnalyzer::ScriptedAnalyzer(Script script) : acceptor_() {
    SetScript(std::move(script));
    acceptor_ = std::thread([this] { AcceptConnections(); });
}

ScriptedAnalyzer::~ScriptedAnalyzer() {
    stopping_ = true;
    listener_.Interrupt();
    acceptor_.join();
    // No connection is added any more, and the threads don't touch the list.
    CloseConnections();
    for (auto& peer : peers_)
        peer->thread.join();
}

void ScriptedAnalyzer::SetScript(Script script) {
    const std::lock_guard lock(lock_);
    script_ = script ? std::move(script) : [](const SeenRequest& request, AnalyzerConnection& connection) {
        connection.Answer(request);
    };
}

std::vector<SeenRequest> ScriptedAnalyzer::Requests() const {
    const std::lock_guard lock(lock_);
    return requests_;
}

bool ScriptedAnalyzer::WaitForRequests(std::size_t count) const {
    return WaitUntil([&] { return requests_.size() >= count; });
}

bool ScriptedAnalyzer::WaitForEnded(std::size_t count) const {
    return WaitUntil([&] { return ended_ >= count; });
}

std::size_t ScriptedAnalyzer::Accepted() const {
    const std::lock_guard lock(lock_);
    return peers_.size();
}

void ScriptedAnalyzer::CloseConnections() {
    const std::lock_guard lock(lock_);
    for (auto& peer : peers_)
        peer->stream.Interrupt();
}

void ScriptedAnalyzer::ResetConnections() {
    const std::lock_guard lock(lock_);
    for (auto& peer : peers_) {
        peer->endsByReset = true;
        peer->stream.StopReading();
    }
}

bool ScriptedAnalyzer::WaitUntil(const std::function<bool()>& condition) const {
    std::unique_lock lock(lock_);
    return changed_.wait_for(lock, kPatience, condition);
}

void ScriptedAnalyzer::AcceptConnections() {
    LoopbackStream stream;
    while (listener_.Accept(stream) && !stopping_) {
        const std::lock_guard lock(lock_);
        peers_.push_back(std::make_unique<Peer>());
        Peer& peer = *peers_.back();
        peer.stream = std::move(stream);
        peer.thread = std::thread([this, &peer, number = peers_.size()] { Serve(peer, number); });
    }
}

void ScriptedAnalyzer::Serve(Peer& peer, std::size_t number) {
    AnalyzerConnection connection(peer.stream);
    for (;;) {
        const std::unique_ptr<SeenRequest> request = DecodeRequest(ReadFrame(peer.stream));
        if (request == nullptr) break;
        request->connection = number;
        Script script;
        {
            const std::lock_guard lock(lock_);
            requests_.push_back(*request);
            script = script_;
        }
        changed_.notify_all();
        script(*request, connection);
    }
    if (peer.endsByReset) {
        peer.stream.ResetPeer();
    } else {
        peer.stream.Interrupt();
    }
    const std::lock_guard lock(lock_);
    // A test may have more connections, one after the other, than a process can have sockets.
    peer.stream = LoopbackStream();
    ++ended_;
    changed_.notify_all();
}
