// See client_connection.h.
#include "analyzer/client_connection.h"

#include <utility>

#include "analyzer/frame_handler.h"

namespace {

constexpr std::size_t kLengthWordSize = 4;

}  // namespace

bool ClientConnection::End(const char* reason) {
    endReason_ = reason;
    return false;
}

std::string ClientConnection::Name() const {
    const std::string port = "port " + std::to_string(port_);
    return process_ ? "process " + std::to_string(*process_) + ", " + port : port;
}

std::optional<ServerTime> ClientConnection::NextDue() const {
    if (delayed_.empty()) return std::nullopt;
    return delayed_.begin()->first;
}

bool ClientConnection::Receive(FrameHandler& handler, std::vector<unsigned char>& scratch, ServerTime now) {
    std::size_t received = 0;
    switch (ReceiveSome(Socket(), scratch.data(), scratch.size(), &received)) {
        case Transfer::kDone:
            return TakeBytes(handler, scratch.data(), received, now);
        case Transfer::kEnded:
            // It may still want the answers to what it has asked; a frame that it has begun never ends.
            inputEnded_ = true;
            std::vector<unsigned char>().swap(in_);
            return true;
        case Transfer::kNotNow:
            return true;
        case Transfer::kFailed:
            break;
    }
    return End("");
}

bool ClientConnection::TakeBytes(FrameHandler& handler, const unsigned char* bytes, std::size_t count,
                                 ServerTime now) {
    std::size_t taken = 0;
    if (in_.empty()) {
        if (!TakeFrames(handler, bytes, count, taken, now)) return false;
        KeepRest(bytes + taken, count - taken, now);
        return true;
    }
    in_.insert(in_.end(), bytes, bytes + count);
    if (!TakeFrames(handler, in_.data(), in_.size(), taken, now)) return false;
    if (taken != 0) {
        const std::vector<unsigned char> all = std::exchange(in_, {});
        KeepRest(all.data() + taken, all.size() - taken, now);
    }
    return true;
}

void ClientConnection::KeepRest(const unsigned char* rest, std::size_t count, ServerTime now) {
    if (count == 0) return;
    frameStarted_ = now;
    in_.assign(rest, rest + count);
}

/// Hands every whole frame to the handler; `taken` are the bytes of these.
bool ClientConnection::TakeFrames(FrameHandler& handler, const unsigned char* bytes, std::size_t count,
                                  std::size_t& taken, ServerTime now) {
    while (count - taken >= kLengthWordSize) {
        std::size_t length = 0;
        if (!ReadFrameLength(bytes + taken, length)) return End("a frame of an impossible length");
        if (count - taken < length) break;
        const std::size_t before = out_.size();
        const Reply reply = handler.OnFrame(bytes + taken, length, out_);
        taken += length;
        if (reply.kind == Reply::Kind::kClose) return End("closed by the handler");
        process_ = reply.processId;
        if (reply.kind == Reply::Kind::kSend && reply.delayMilliseconds != 0)
            Delay(before, now + std::chrono::milliseconds(reply.delayMilliseconds));
    }
    return true;
}

/// Holds the answer back that the bytes to send have from `begin` on.
void ClientConnection::Delay(std::size_t begin, ServerTime due) {
    const auto tail = out_.begin() + static_cast<std::ptrdiff_t>(begin);
    std::vector<unsigned char> answer(tail, out_.end());
    out_.erase(tail, out_.end());
    delayedBytes_ += answer.size();
    delayed_.emplace(due, std::move(answer));
}

void ClientConnection::ReleaseDue(ServerTime now) {
    while (!delayed_.empty() && delayed_.begin()->first <= now) {
        const std::vector<unsigned char>& answer = delayed_.begin()->second;
        delayedBytes_ -= answer.size();
        out_.insert(out_.end(), answer.begin(), answer.end());
        delayed_.erase(delayed_.begin());
    }
}

bool ClientConnection::Send(ServerTime now) {
    ReleaseDue(now);
    while (sent_ < out_.size()) {
        std::size_t count = 0;
        const Transfer outcome = SendSome(Socket(), out_.data() + sent_, out_.size() - sent_, &count);
        if (outcome == Transfer::kDone) {
            sent_ += count;
            continue;
        }
        // What is gone must not pile up while there is always something left. Half of it at a time, so that
        // the rest isn't moved for every few bytes.
        if (sent_ > out_.size() / 2) {
            out_.erase(out_.begin(), out_.begin() + static_cast<std::ptrdiff_t>(sent_));
            sent_ = 0;
        }
        return outcome == Transfer::kNotNow || End("");
    }
    out_.clear();
    sent_ = 0;
    return true;
}
