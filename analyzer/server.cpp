// POSIX sockets live here and nowhere else in the analyzer; no Windows header may be included.
#include "analyzer/server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <system_error>
#include <unordered_map>
#include <vector>

#include "analyzer/frame_handler.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kReadSize = 64 * 1024;
constexpr std::size_t kLengthWordSize = 4;
constexpr int kAcceptsPerWake = 64;
constexpr int kEventsPerWake = 128;
constexpr int kListenerPauseMilliseconds = 100;

[[noreturn]] void ThrowErrno(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/// A file descriptor that closes itself.
class Descriptor {
  public:
    Descriptor(int fd, const char* what) : fd_(fd) {
        if (fd_ < 0) ThrowErrno(what);
    }
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { ::close(fd_); }
    int Get() const { return fd_; }

  private:
    int fd_;
};

struct Connection {
    explicit Connection(int fd) : socket(fd) {}

    std::size_t Unsent() const { return out.size() - sent + delayedBytes; }

    Descriptor socket;
    /// The beginning of a frame that isn't all there.
    std::vector<unsigned char> in;
    Clock::time_point frameStarted;
    /// Bytes to send, of which the first `sent` are gone.
    std::vector<unsigned char> out;
    std::size_t sent = 0;
    std::size_t delayedBytes = 0;
    bool inputEnded = false;
    std::uint32_t interest = 0;
};

struct DelayedAnswer {
    std::uint64_t connection;
    std::vector<unsigned char> bytes;
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
    // Keys of the two descriptors that are no connections; connections count up from the next.
    enum Key : std::uint64_t { kListenerKey, kStopKey, kFirstConnectionKey };

    void Watch(int operation, int fd, std::uint64_t key, std::uint32_t events);
    int WaitMilliseconds(Clock::time_point now) const;
    int SweepMilliseconds() const {
        return static_cast<int>(std::min(1000u, limits_.frameMilliseconds / 2 + 1));
    }
    void Accept();
    void SetListening(bool on);
    void HandleEvent(std::uint64_t key, std::uint32_t events);
    bool Receive(std::uint64_t key, Connection& connection);
    bool TakeBytes(std::uint64_t key, Connection& connection, const unsigned char* bytes, std::size_t count);
    bool TakeFrames(std::uint64_t key, Connection& connection, const unsigned char* bytes, std::size_t count,
                    std::size_t& taken);
    void KeepRest(Connection& connection, const unsigned char* rest, std::size_t count, bool newFrame);
    bool Send(Connection& connection);
    void Settle(std::uint64_t key, Connection& connection);
    void Close(std::uint64_t key, const char* reason);
    void SendDelayed(Clock::time_point now);
    void CloseStalled(Clock::time_point now);

    FrameHandler& handler_;
    const ServerLimits limits_;
    const std::function<void(const std::string&)> note_;
    Descriptor listener_;
    Descriptor epoll_;
    Descriptor stop_;
    std::uint16_t port_ = 0;
    bool listening_ = false;
    bool stopping_ = false;
    std::uint64_t nextKey_ = kFirstConnectionKey;
    std::unordered_map<std::uint64_t, std::unique_ptr<Connection>> connections_;
    std::multimap<Clock::time_point, DelayedAnswer> delayed_;
    std::size_t buffered_ = 0;
    Clock::time_point nextSweep_;
    std::vector<unsigned char> scratch_ = std::vector<unsigned char>(kReadSize);
};

Server::Implementation::Implementation(std::uint16_t port, FrameHandler& handler, const ServerLimits& limits,
                                       std::function<void(const std::string&)> note)
    : handler_(handler),
      limits_(limits),
      note_(std::move(note)),
      listener_(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket"),
      epoll_(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1"),
      stop_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC), "eventfd") {
    const int on = 1;
    ::setsockopt(listener_.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (::bind(listener_.Get(), reinterpret_cast<const sockaddr*>(&address), length) != 0) ThrowErrno("bind");
    if (::listen(listener_.Get(), SOMAXCONN) != 0) ThrowErrno("listen");
    if (::getsockname(listener_.Get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        ThrowErrno("getsockname");
    }
    port_ = ntohs(address.sin_port);
    Watch(EPOLL_CTL_ADD, stop_.Get(), kStopKey, EPOLLIN);
    Watch(EPOLL_CTL_ADD, listener_.Get(), kListenerKey, 0);
    SetListening(true);
}

void Server::Implementation::Watch(int operation, int fd, std::uint64_t key, std::uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = key;
    if (::epoll_ctl(epoll_.Get(), operation, fd, &event) != 0) ThrowErrno("epoll_ctl");
}

void Server::Implementation::SetListening(bool on) {
    if (listening_ == on) return;
    listening_ = on;
    Watch(EPOLL_CTL_MOD, listener_.Get(), kListenerKey, on ? EPOLLIN : 0u);
}

void Server::Implementation::Stop() noexcept {
    const std::uint64_t one = 1;
    // It can only fail when the counter is full, and then the stop is on its way.
    [[maybe_unused]] const ssize_t written = ::write(stop_.Get(), &one, sizeof(one));
}

void Server::Implementation::Run() {
    epoll_event events[kEventsPerWake];
    while (!stopping_) {
        const int count = ::epoll_wait(epoll_.Get(), events, kEventsPerWake, WaitMilliseconds(Clock::now()));
        if (count < 0 && errno != EINTR) ThrowErrno("epoll_wait");
        for (int index = 0; index < count; ++index)
            HandleEvent(events[index].data.u64, events[index].events);
        if (!delayed_.empty() || buffered_ != 0) {
            const Clock::time_point now = Clock::now();
            SendDelayed(now);
            CloseStalled(now);
        }
        if (count == 0) SetListening(true);
        handler_.OnIdle();
    }
}

int Server::Implementation::WaitMilliseconds(Clock::time_point now) const {
    long long wait = -1;
    const auto atMost = [&wait](long long milliseconds) {
        wait = wait < 0 ? milliseconds : std::min(wait, milliseconds);
    };
    if (!delayed_.empty()) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(delayed_.begin()->first - now).count();
        atMost(std::max<long long>(left + 1, 0));
    }
    if (buffered_ != 0) atMost(SweepMilliseconds());
    if (!listening_) atMost(kListenerPauseMilliseconds);
    return static_cast<int>(wait);
}

void Server::Implementation::HandleEvent(std::uint64_t key, std::uint32_t events) {
    if (key == kStopKey) {
        stopping_ = true;
        return;
    }
    if (key == kListenerKey) return Accept();
    // An earlier event of the same wake may have closed it.
    const auto found = connections_.find(key);
    if (found == connections_.end()) return;
    Connection& connection = *found->second;
    if ((events & (EPOLLERR | EPOLLHUP)) != 0 && (events & EPOLLIN) == 0) return Close(key, nullptr);
    if ((events & EPOLLIN) != 0 && !Receive(key, connection)) return;
    Settle(key, connection);
}

void Server::Implementation::Accept() {
    for (int count = 0; count < kAcceptsPerWake; ++count) {
        const int fd = ::accept4(listener_.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            // Without descriptors or memory the listener would stay readable and keep this thread awake.
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)
                SetListening(false);
            return;
        }
        auto connection = std::make_unique<Connection>(fd);
        if (connections_.size() >= limits_.connections) {
            if (note_)
                note_("connection refused: there are " + std::to_string(connections_.size()) + " already");
            continue;
        }
        const int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        const std::uint64_t key = nextKey_++;
        connection->interest = EPOLLIN;
        Watch(EPOLL_CTL_ADD, fd, key, EPOLLIN);
        connections_.emplace(key, std::move(connection));
    }
}

/// False when the connection is gone.
bool Server::Implementation::Receive(std::uint64_t key, Connection& connection) {
    const ssize_t received = ::recv(connection.socket.Get(), scratch_.data(), scratch_.size(), 0);
    if (received > 0) return TakeBytes(key, connection, scratch_.data(), static_cast<std::size_t>(received));
    if (received == 0) {
        // It may still want the answers to what it has asked.
        connection.inputEnded = true;
        return true;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return true;
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
            buffered_ -= connection.in.size();
            std::vector<unsigned char>().swap(connection.in);
            KeepRest(connection, rest.data(), rest.size(), true);
        }
    }
    if (buffered_ <= limits_.bufferedBytes) return true;
    Close(key, "too many bytes of unfinished frames");
    return false;
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
        if (reply.kind == Reply::Kind::kSend && reply.delayMilliseconds != 0) {
            const auto tail = connection.out.begin() + static_cast<std::ptrdiff_t>(before);
            DelayedAnswer answer{key, {tail, connection.out.end()}};
            connection.out.erase(tail, connection.out.end());
            connection.delayedBytes += answer.bytes.size();
            delayed_.emplace(Clock::now() + std::chrono::milliseconds(reply.delayMilliseconds),
                             std::move(answer));
        }
    }
    return true;
}

/// Sends what can be sent now. False when the other side is gone.
bool Server::Implementation::Send(Connection& connection) {
    while (connection.sent < connection.out.size()) {
        const ssize_t count = ::send(connection.socket.Get(), connection.out.data() + connection.sent,
                                     connection.out.size() - connection.sent, MSG_NOSIGNAL);
        if (count < 0) {
            if (errno == EINTR) continue;
            return errno == EAGAIN || errno == EWOULDBLOCK;
        }
        connection.sent += static_cast<std::size_t>(count);
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
    std::uint32_t interest = 0;
    if (!connection.inputEnded && connection.Unsent() <= limits_.unsentBytes) interest |= EPOLLIN;
    if (!connection.out.empty()) interest |= EPOLLOUT;
    if (interest == connection.interest) return;
    connection.interest = interest;
    Watch(EPOLL_CTL_MOD, connection.socket.Get(), key, interest);
}

void Server::Implementation::Close(std::uint64_t key, const char* reason) {
    const auto found = connections_.find(key);
    if (reason != nullptr && note_) note_(std::string("connection closed: ") + reason);
    buffered_ -= found->second->in.size();
    connections_.erase(found);
    SetListening(true);
}

void Server::Implementation::SendDelayed(Clock::time_point now) {
    while (!delayed_.empty() && delayed_.begin()->first <= now) {
        const DelayedAnswer answer = std::move(delayed_.begin()->second);
        delayed_.erase(delayed_.begin());
        const auto found = connections_.find(answer.connection);
        if (found == connections_.end()) continue;
        Connection& connection = *found->second;
        connection.delayedBytes -= answer.bytes.size();
        connection.out.insert(connection.out.end(), answer.bytes.begin(), answer.bytes.end());
        Settle(answer.connection, connection);
    }
}

void Server::Implementation::CloseStalled(Clock::time_point now) {
    if (buffered_ == 0 || now < nextSweep_) return;
    nextSweep_ = now + std::chrono::milliseconds(SweepMilliseconds());
    const auto oldest = now - std::chrono::milliseconds(limits_.frameMilliseconds);
    std::vector<std::uint64_t> stalled;
    for (const auto& [key, connection] : connections_) {
        // A client that isn't read from at the moment isn't the one that lets the frame wait.
        const bool reading = (connection->interest & EPOLLIN) != 0;
        if (reading && !connection->in.empty() && connection->frameStarted < oldest) stalled.push_back(key);
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
