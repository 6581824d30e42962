// See client_connection.h.
#include "analyzer/client_connection.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

constexpr std::size_t kLengthWordSize = 4;

/// What a connection may keep for answers to come while it has none to send.
constexpr std::size_t kRoomKept = 128u * 1024;

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
    if (delayed_.empty()) return callAt_;
    const ServerTime due = delayed_.begin()->first;
    return callAt_ ? std::min(due, *callAt_) : due;
}

bool ClientConnection::Receive(std::vector<unsigned char>& scratch, ServerTime now) {
    // The beginning of a frame goes in front of what is read now, so that the frame is whole in one place
    // without its rest being copied.
    const std::size_t begun = in_.size();
    const bool inPlace = begun <= scratch.size() / 2;
    const std::size_t room = inPlace ? scratch.size() - begun : scratch.size();
    unsigned char* const to = scratch.data() + (scratch.size() - room);
    std::size_t received = 0;
    switch (ReceiveSome(Socket(), to, room, &received)) {
        case Transfer::kDone: {
            if (!inPlace) return TakeLargeFrame(to, received, now);
            if (begun != 0) std::memcpy(scratch.data(), in_.data(), begun);
            std::size_t taken = 0;
            const std::size_t count = begun + received;
            if (!TakeFrames(scratch.data(), count, taken, now)) return false;
            KeepRest(scratch.data() + taken, count - taken, begun == 0 || taken != 0, now);
            return true;
        }
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

/// More of a frame that is too large for the scratch.
bool ClientConnection::TakeLargeFrame(const unsigned char* bytes, std::size_t count, ServerTime now) {
    in_.insert(in_.end(), bytes, bytes + count);
    std::size_t taken = 0;
    if (!TakeFrames(in_.data(), in_.size(), taken, now)) return false;
    if (taken != 0) {
        const std::vector<unsigned char> all = std::exchange(in_, {});
        KeepRest(all.data() + taken, all.size() - taken, true, now);
    }
    return true;
}

/// Keeps the bytes of a frame that isn't all there; `begins` when they are its first.
void ClientConnection::KeepRest(const unsigned char* rest, std::size_t count, bool begins, ServerTime now) {
    in_.assign(rest, rest + count);
    if (begins) frameStarted_ = now;
}

/// Hands every whole frame to the handler; `taken` are the bytes of these.
bool ClientConnection::TakeFrames(const unsigned char* bytes, std::size_t count, std::size_t& taken,
                                  ServerTime now) {
    while (count - taken >= kLengthWordSize) {
        std::size_t length = 0;
        if (!ReadFrameLength(bytes + taken, length)) return End("a frame of an impossible length");
        if (count - taken < length) break;
        const std::size_t before = out_.size();
        const Reply reply = handler_->OnFrame(bytes + taken, length, out_);
        taken += length;
        if (!Obey(reply, before, now)) return false;
        process_ = handler_->ProcessId();
    }
    return true;
}

/// Does what the handler says about its answer, which the bytes to send have from `begin` on.
bool ClientConnection::Obey(const Reply& reply, std::size_t begin, ServerTime now) {
    if (reply.kind == Reply::Kind::kClose) return End("closed by the handler");
    if (reply.kind == Reply::Kind::kSend && reply.delayMilliseconds != 0)
        Delay(begin, now + std::chrono::milliseconds(reply.delayMilliseconds));
    if (reply.callMilliseconds != 0) {
        const ServerTime at = now + std::chrono::milliseconds(reply.callMilliseconds);
        callAt_ = callAt_ ? std::min(*callAt_, at) : at;
    }
    return true;
}

bool ClientConnection::CallHandler(ServerTime now) {
    if (!callAt_ || *callAt_ > now) return true;
    callAt_.reset();
    const std::size_t before = out_.size();
    return Obey(handler_->OnTime(out_), before, now);
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
    if (!CallHandler(now)) return false;
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
    if (out_.capacity() > kRoomKept) {
        std::vector<unsigned char>().swap(out_);
    } else {
        out_.clear();
    }
    sent_ = 0;
    return true;
}
