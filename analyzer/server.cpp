// Connections, their frames and their limits, on the sockets of sockets.h.
#include "analyzer/server.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "analyzer/frame_handler.h"
#include "analyzer/sockets.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kReadSize = 64 * 1024;
constexpr std::size_t kLengthWordSize = 4;
constexpr int kAcceptsPerWake = 64;
constexpr int kListenerPauseMilliseconds = 100;

struct Connection {
    explicit Connection(SocketHandle handle) : socket(handle) {}

    std::size_t Unsent() const { return out.size() - sent + delayedBytes; }

    OwnedSocket socket;
    /// The beginning of a frame that isn't all there.
    std::vector<unsigned char> in;
    Clock::time_point frameStarted;
    /// Bytes to send, of which the first `sent` are gone.
    std::vector<unsigned char> out;
    std::size_t sent = 0;
    /// Answers that are held back, by when they are due, and their bytes.
    std::multimap<Clock::time_point, std::vector<unsigned char>> delayed;
    std::size_t delayedBytes = 0;
    bool inputEnded = false;
    /// What the socket is watched for.
    bool reading = true;
    bool writing = false;
};

}  // namespace

class Server::Implementation {
  public:
    Implementation(std::uint16_t port, FrameHandler& handler, const ServerLimits& limits,
                   std::function<void(const std::string&)> note);

    std::uint16_t Port() const { return port_; }
    void Run();
    void Stop() noexcept;

  private:
    // Connections count up from the key behind the listener's.
    enum Key : std::uint64_t { kListenerKey, kFirstConnectionKey };

    int WaitMilliseconds(Clock::time_point now) const;
    int SweepMilliseconds() const {
        return static_cast<int>(std::min(1000u, limits_.frameMilliseconds / 2 + 1));
    }
    void Accept();
    void SetListening(bool on);
    void HandleEvent(const SocketEvent& event);
    bool Receive(std::uint64_t key, Connection& connection);
    bool TakeBytes(std::uint64_t key, Connection& connection, const unsigned char* bytes, std::size_t count);
    bool TakeFrames(std::uint64_t key, Connection& connection, const unsigned char* bytes, std::size_t count,
                    std::size_t& taken);
    void KeepRest(Connection& connection, const unsigned char* rest, std::size_t count, bool newFrame);
    bool Send(Connection& connection);
    void ForgetInput(Connection& connection);
    void Delay(std::uint64_t key, Connection& connection, std::uint32_t milliseconds, std::size_t begin);
    void SetDue(std::uint64_t key, const Connection& connection);
    void ClearDue(std::uint64_t key, const Connection& connection);
    void Settle(std::uint64_t key, Connection& connection);
    void Close(std::uint64_t key, const char* reason);
    void SendDelayed(Clock::time_point now);
    void CloseStalled(Clock::time_point now);

    FrameHandler& handler_;
    const ServerLimits limits_;
    const std::function<void(const std::string&)> note_;
    std::uint16_t port_;
    const OwnedSocket listener_;
    SocketWatch watch_;
    bool listening_ = true;
    std::uint64_t nextKey_ = kFirstConnectionKey;
    std::unordered_map<std::uint64_t, std::unique_ptr<Connection>> connections_;
    /// When the first delayed answer of a connection is due, of each that has one.
    std::set<std::pair<Clock::time_point, std::uint64_t>> due_;
    std::size_t buffered_ = 0;
    Clock::time_point nextSweep_;
    std::vector<unsigned char> scratch_ = std::vector<unsigned char>(kReadSize);
};

Server::Implementation::Implementation(std::uint16_t port, FrameHandler& handler, const ServerLimits& limits,
                                       std::function<void(const std::string&)> note)
    : handler_(handler),
      limits_(limits),
      note_(std::move(note)),
      port_(port),
      listener_(ListenOnLoopback(&port_)) {
    watch_.Add(listener_.Get(), kListenerKey, true, false);
}

void Server::Implementation::SetListening(bool on) {
    if (listening_ == on) return;
    listening_ = on;
    watch_.Change(listener_.Get(), kListenerKey, on, false);
}

void Server::Implementation::Stop() noexcept {
    watch_.Wake();
}

void Server::Implementation::Run() {
    std::vector<SocketEvent> events;
    for (bool goesOn = true; goesOn;) {
        goesOn = watch_.Wait(WaitMilliseconds(Clock::now()), &events);
        for (const SocketEvent& event : events)
            HandleEvent(event);
        if (!due_.empty() || buffered_ != 0) {
            const Clock::time_point now = Clock::now();
            SendDelayed(now);
            CloseStalled(now);
        }
        if (events.empty()) SetListening(true);
    }
}

int Server::Implementation::WaitMilliseconds(Clock::time_point now) const {
    long long wait = -1;
    const auto atMost = [&wait](long long milliseconds) {
        wait = wait < 0 ? milliseconds : std::min(wait, milliseconds);
    };
    if (!due_.empty()) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(due_.begin()->first - now).count();
        atMost(std::max<long long>(left + 1, 0));
    }
    if (buffered_ != 0) atMost(SweepMilliseconds());
    if (!listening_) atMost(kListenerPauseMilliseconds);
    return static_cast<int>(wait);
}

void Server::Implementation::HandleEvent(const SocketEvent& event) {
    if (event.key == kListenerKey) return Accept();
    // An earlier event of the same wake may have closed it.
    const auto found = connections_.find(event.key);
    if (found == connections_.end()) return;
    Connection& connection = *found->second;
    if (event.failed && !event.readable) return Close(event.key, nullptr);
    if (event.readable && !Receive(event.key, connection)) return;
    Settle(event.key, connection);
}

void Server::Implementation::Accept() {
    for (int count = 0; count < kAcceptsPerWake; ++count) {
        SocketHandle accepted = 0;
        const Accepted outcome = AcceptNext(listener_.Get(), &accepted);
        // Without resources the listener would stay readable and keep this thread awake.
        if (outcome == Accepted::kNoResources) SetListening(false);
        if (outcome != Accepted::kConnection) return;
        auto connection = std::make_unique<Connection>(accepted);
        if (connections_.size() >= limits_.connections) {
            if (note_)
                note_("connection refused: there are " + std::to_string(connections_.size()) + " already");
            continue;
        }
        const std::uint64_t key = nextKey_++;
        watch_.Add(accepted, key, true, false);
        connections_.emplace(key, std::move(connection));
    }
}

/// False when the connection is gone.
bool Server::Implementation::Receive(std::uint64_t key, Connection& connection) {
    std::size_t received = 0;
    switch (ReceiveSome(connection.socket.Get(), scratch_.data(), scratch_.size(), &received)) {
        case Transfer::kDone:
            return TakeBytes(key, connection, scratch_.data(), received);
        case Transfer::kEnded:
            // It may still want the answers to what it has asked; a frame that it has begun never ends.
            connection.inputEnded = true;
            ForgetInput(connection);
            return true;
        case Transfer::kNotNow:
            return true;
        case Transfer::kFailed:
            break;
    }
    Close(key, nullptr);
    return false;
}

bool Server::Implementation::TakeBytes(std::uint64_t key, Connection& connection, const unsigned char* bytes,
                                       std::size_t count) {
    std::size_t taken = 0;
    if (connection.in.empty()) {
        if (!TakeFrames(key, connection, bytes, count, taken)) return false;
        KeepRest(connection, bytes + taken, count - taken, true);
    } else {
        connection.in.insert(connection.in.end(), bytes, bytes + count);
        buffered_ += count;
        if (!TakeFrames(key, connection, connection.in.data(), connection.in.size(), taken)) return false;
        if (taken != 0) {
            const std::vector<unsigned char> rest(connection.in.begin() + static_cast<std::ptrdiff_t>(taken),
                                                  connection.in.end());
            ForgetInput(connection);
            KeepRest(connection, rest.data(), rest.size(), true);
        }
    }
    if (buffered_ <= limits_.bufferedBytes) return true;
    Close(key, "too many bytes of unfinished frames");
    return false;
}

void Server::Implementation::ForgetInput(Connection& connection) {
    buffered_ -= connection.in.size();
    std::vector<unsigned char>().swap(connection.in);
}

void Server::Implementation::KeepRest(Connection& connection, const unsigned char* rest, std::size_t count,
                                      bool newFrame) {
    if (count == 0) return;
    if (newFrame) connection.frameStarted = Clock::now();
    connection.in.assign(rest, rest + count);
    buffered_ += count;
}

/// Hands every whole frame to the handler; `taken` are the bytes of these. False when the connection is gone.
bool Server::Implementation::TakeFrames(std::uint64_t key, Connection& connection, const unsigned char* bytes,
                                        std::size_t count, std::size_t& taken) {
    while (count - taken >= kLengthWordSize) {
        std::size_t length = 0;
        if (!ReadFrameLength(bytes + taken, length)) {
            Close(key, "a frame of an impossible length");
            return false;
        }
        if (count - taken < length) break;
        const std::size_t before = connection.out.size();
        const Reply reply = handler_.OnFrame(bytes + taken, length, connection.out);
        taken += length;
        if (reply.kind == Reply::Kind::kClose) {
            Close(key, "closed by the handler");
            return false;
        }
        if (reply.kind == Reply::Kind::kSend && reply.delayMilliseconds != 0)
            Delay(key, connection, reply.delayMilliseconds, before);
    }
    return true;
}

/// Sends what can be sent now. False when the other side is gone.
bool Server::Implementation::Send(Connection& connection) {
    while (connection.sent < connection.out.size()) {
        std::size_t count = 0;
        const Transfer outcome = SendSome(connection.socket.Get(), connection.out.data() + connection.sent,
                                          connection.out.size() - connection.sent, &count);
        if (outcome != Transfer::kDone) {
            // What is gone must not pile up while there is always something left. Half of it at a time, so
            // that the rest isn't moved for every few bytes.
            if (connection.sent > connection.out.size() / 2) {
                connection.out.erase(connection.out.begin(),
                                     connection.out.begin() + static_cast<std::ptrdiff_t>(connection.sent));
                connection.sent = 0;
            }
            return outcome == Transfer::kNotNow;
        }
        connection.sent += count;
    }
    connection.out.clear();
    connection.sent = 0;
    return true;
}

/// After anything that happened on a connection: sends, closes it when it is done, and sets what is waited
/// for.
void Server::Implementation::Settle(std::uint64_t key, Connection& connection) {
    if (!Send(connection)) return Close(key, nullptr);
    if (connection.inputEnded && connection.Unsent() == 0) return Close(key, nullptr);
    const bool reading = !connection.inputEnded && connection.Unsent() <= limits_.unsentBytes;
    const bool writing = !connection.out.empty();
    if (reading == connection.reading && writing == connection.writing) return;
    connection.reading = reading;
    connection.writing = writing;
    watch_.Change(connection.socket.Get(), key, reading, writing);
}

void Server::Implementation::Close(std::uint64_t key, const char* reason) {
    const auto found = connections_.find(key);
    if (reason != nullptr && note_) note_(std::string("connection closed: ") + reason);
    ForgetInput(*found->second);
    ClearDue(key, *found->second);
    watch_.Forget(found->second->socket.Get());
    connections_.erase(found);
    SetListening(true);
}

void Server::Implementation::SetDue(std::uint64_t key, const Connection& connection) {
    if (!connection.delayed.empty()) due_.emplace(connection.delayed.begin()->first, key);
}

void Server::Implementation::ClearDue(std::uint64_t key, const Connection& connection) {
    if (!connection.delayed.empty()) due_.erase({connection.delayed.begin()->first, key});
}

/// Holds the answer back that the unsent bytes have from `begin` on.
void Server::Implementation::Delay(std::uint64_t key, Connection& connection, std::uint32_t milliseconds,
                                   std::size_t begin) {
    const auto tail = connection.out.begin() + static_cast<std::ptrdiff_t>(begin);
    std::vector<unsigned char> answer(tail, connection.out.end());
    connection.out.erase(tail, connection.out.end());
    ClearDue(key, connection);
    connection.delayedBytes += answer.size();
    connection.delayed.emplace(Clock::now() + std::chrono::milliseconds(milliseconds), std::move(answer));
    SetDue(key, connection);
}

void Server::Implementation::SendDelayed(Clock::time_point now) {
    while (!due_.empty() && due_.begin()->first <= now) {
        const std::uint64_t key = due_.begin()->second;
        Connection& connection = *connections_.at(key);
        ClearDue(key, connection);
        while (!connection.delayed.empty() && connection.delayed.begin()->first <= now) {
            const std::vector<unsigned char>& answer = connection.delayed.begin()->second;
            connection.delayedBytes -= answer.size();
            connection.out.insert(connection.out.end(), answer.begin(), answer.end());
            connection.delayed.erase(connection.delayed.begin());
        }
        SetDue(key, connection);
        Settle(key, connection);
    }
}

void Server::Implementation::CloseStalled(Clock::time_point now) {
    if (buffered_ == 0 || now < nextSweep_) return;
    nextSweep_ = now + std::chrono::milliseconds(SweepMilliseconds());
    const auto oldest = now - std::chrono::milliseconds(limits_.frameMilliseconds);
    std::vector<std::uint64_t> stalled;
    for (const auto& [key, connection] : connections_) {
        // A client that isn't read from at the moment isn't the one that lets the frame wait.
        if (connection->reading && !connection->in.empty() && connection->frameStarted < oldest)
            stalled.push_back(key);
    }
    for (std::uint64_t key : stalled)
        Close(key, "a frame took too long to arrive");
}

Server::Server(std::uint16_t port, FrameHandler& handler, const ServerLimits& limits,
               std::function<void(const std::string&)> note)
    : implementation_(std::make_unique<Implementation>(port, handler, limits, std::move(note))) {}

Server::~Server() = default;

std::uint16_t Server::Port() const {
    return implementation_->Port();
}

void Server::Run() {
    implementation_->Run();
}

void Server::Stop() noexcept {
    implementation_->Stop();
}
