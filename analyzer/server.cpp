// All connections together and their limits. What happens on one of them is ClientConnection's.
#include "analyzer/server.h"

#include <algorithm>
#include <atomic>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "analyzer/client_connection.h"
#include "analyzer/connection_shares.h"
#include "analyzer/frame_handler.h"
#include "analyzer/sockets.h"

namespace {

constexpr std::size_t kReadSize = 64 * 1024;
constexpr int kAcceptsPerWake = 64;
constexpr int kListenerPauseMilliseconds = 100;

/// With less room the shares shrink too: one must not take all.
ServerLimits WithinTheSystems(ServerLimits limits) {
    const std::size_t room = RoomForConnections();
    if (room >= limits.connections) return limits;
    limits.connections = std::max<std::size_t>(room, 1);
    limits.connectionsOfOne = std::max<std::size_t>(std::min(limits.connectionsOfOne, room / 4), 1);
    return limits;
}

}  // namespace

class Server::Implementation {
  public:
    Implementation(std::uint16_t port, FrameHandlers& handlers, const ServerLimits& limits, Note note,
                   Clock clock);

    std::uint16_t Port() const { return port_; }
    bool Run();
    void Stop() noexcept;
    void Interrupt() noexcept { watch_.Wake(); }

  private:
    // Connections count up from the key behind the listener's.
    enum Key : std::uint64_t { kListenerKey, kFirstConnectionKey };

    /// A connection, and what the server has noted down of it.
    struct Client {
        using Due = std::optional<ServerTime>;

        Client(SocketHandle socket, std::uint16_t port, std::unique_ptr<FrameHandler> handler, ServerTime now)
            : connection(socket, port, std::move(handler), now) {}

        ClientConnection connection;
        std::size_t buffered = 0;
        Due due;
        bool reading = true;
        bool writing = false;
    };

    int WaitMilliseconds() const;
    int SweepMilliseconds() const {
        return static_cast<int>(std::min(1000u, limits_.frameMilliseconds / 2 + 1));
    }
    ServerTime SilentUntil(std::uint64_t key) const {
        return clients_.at(key)->connection.Arrived() + std::chrono::milliseconds(limits_.silentMilliseconds);
    }
    void Accept(ServerTime now);
    void SetListening(bool on);
    void HandleEvent(const SocketEvent& event, ServerTime now);
    void Use(std::uint64_t key, ConnectionShares::Owner owner);
    void Settle(std::uint64_t key, ServerTime now);
    void NoteDown(std::uint64_t key, Client& client, std::size_t buffered, const Client::Due& due);
    void Close(std::uint64_t key, const std::string& reason);
    void SendDelayed(ServerTime now);
    void CloseSilent(ServerTime now);
    void CloseStalled(ServerTime now);

    FrameHandlers& handlers_;
    const ServerLimits limits_;
    const Note note_;
    const Clock clock_;
    std::uint16_t port_;
    const OwnedSocket listener_;
    SocketWatch watch_;
    std::atomic<bool> stopped_{false};
    bool listening_ = true;
    std::uint64_t nextKey_ = kFirstConnectionKey;
    std::unordered_map<std::uint64_t, std::unique_ptr<Client>> clients_;
    ConnectionShares shares_;
    /// When the first delayed answer of a connection is due, of each that has one.
    std::set<std::pair<ServerTime, std::uint64_t>> due_;
    std::size_t buffered_ = 0;
    ServerTime nextSweep_;
    std::vector<unsigned char> scratch_ = std::vector<unsigned char>(kReadSize);
};

Server::Implementation::Implementation(std::uint16_t port, FrameHandlers& handlers,
                                       const ServerLimits& limits, Note note, Clock clock)
    : handlers_(handlers),
      limits_(WithinTheSystems(limits)),
      note_(std::move(note)),
      clock_(std::move(clock)),
      port_(port),
      listener_(ListenOnLoopback(&port_)),
      shares_(limits_.connections, limits_.connectionsOfOne) {
    watch_.Add(listener_.Get(), kListenerKey, true, false);
}

void Server::Implementation::SetListening(bool on) {
    if (listening_ == on) return;
    listening_ = on;
    watch_.Change(listener_.Get(), kListenerKey, on, false);
}

void Server::Implementation::Stop() noexcept {
    stopped_ = true;
    watch_.Wake();
}

bool Server::Implementation::Run() {
    std::vector<SocketEvent> events;
    for (bool goesOn = true; goesOn;) {
        goesOn = watch_.Wait(WaitMilliseconds(), &events);
        const ServerTime now = clock_();
        for (const SocketEvent& event : events)
            HandleEvent(event, now);
        SendDelayed(now);
        CloseSilent(now);
        CloseStalled(now);
        if (events.empty()) SetListening(true);
    }
    return !stopped_;
}

int Server::Implementation::WaitMilliseconds() const {
    long long wait = -1;
    const auto atMost = [&wait](long long milliseconds) {
        wait = wait < 0 ? milliseconds : std::min(wait, milliseconds);
    };
    const auto until = [&](ServerTime time) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(time - clock_()).count();
        atMost(std::max<long long>(left + 1, 0));
    };
    if (!due_.empty()) until(due_.begin()->first);
    if (const auto silent = shares_.OldestSilent()) until(SilentUntil(*silent));
    if (buffered_ != 0) atMost(SweepMilliseconds());
    if (!listening_) atMost(kListenerPauseMilliseconds);
    return static_cast<int>(wait);
}

void Server::Implementation::HandleEvent(const SocketEvent& event, ServerTime now) {
    if (event.key == kListenerKey) return Accept(now);
    // An earlier event of the same wake may have closed it.
    const auto found = clients_.find(event.key);
    if (found == clients_.end()) return;
    ClientConnection& connection = found->second->connection;
    if (event.failed && !event.readable) return Close(event.key, "");
    if (event.readable) {
        if (!connection.Receive(scratch_, now)) return Close(event.key, connection.EndReason());
        if (connection.Process()) Use(event.key, *connection.Process());
    }
    Settle(event.key, now);
}

void Server::Implementation::Accept(ServerTime now) {
    for (int count = 0; count < kAcceptsPerWake; ++count) {
        SocketHandle accepted = 0;
        std::uint16_t peerPort = 0;
        const Accepted outcome = AcceptNext(listener_.Get(), &accepted, &peerPort);
        // Without resources the listener would stay readable and keep this thread awake.
        if (outcome == Accepted::kNoResources) SetListening(false);
        if (outcome != Accepted::kConnection) return;
        auto client = std::make_unique<Client>(accepted, peerPort, handlers_.OnConnection(), now);
        const std::uint64_t key = nextKey_++;
        Use(key, ConnectionShares::kSilent);
        watch_.Add(accepted, key, true, false);
        clients_.emplace(key, std::move(client));
    }
}

/// Makes room where a connection is one too many.
void Server::Implementation::Use(std::uint64_t key, ConnectionShares::Owner owner) {
    if (const auto surplus = shares_.Use(key, owner)) Close(surplus->key, surplus->reason);
}

/// After anything that happened on a connection: sends, closes it when it is done or too much, and sets what
/// is waited for.
void Server::Implementation::Settle(std::uint64_t key, ServerTime now) {
    Client& client = *clients_.at(key);
    ClientConnection& connection = client.connection;
    if (!connection.Send(now)) return Close(key, connection.EndReason());
    if (connection.InputEnded() && connection.UnsentBytes() == 0) return Close(key, "");
    NoteDown(key, client, connection.UnfinishedBytes(), connection.NextDue());
    if (buffered_ > limits_.bufferedBytes) return Close(key, "too many bytes of unfinished frames");
    const bool reading = !connection.InputEnded() && connection.UnsentBytes() <= limits_.unsentBytes;
    const bool writing = connection.SendsNow();
    if (reading == client.reading && writing == client.writing) return;
    client.reading = reading;
    client.writing = writing;
    watch_.Change(connection.Socket(), key, reading, writing);
}

void Server::Implementation::NoteDown(std::uint64_t key, Client& client, std::size_t buffered,
                                      const Client::Due& due) {
    buffered_ += buffered - client.buffered;
    client.buffered = buffered;
    if (client.due == due) return;
    if (client.due) due_.erase({*client.due, key});
    if (due) due_.emplace(*due, key);
    client.due = due;
}

void Server::Implementation::Close(std::uint64_t key, const std::string& reason) {
    const auto found = clients_.find(key);
    Client& client = *found->second;
    if (!reason.empty() && note_) note_("connection of " + client.connection.Name() + " closed: " + reason);
    NoteDown(key, client, 0, std::nullopt);
    shares_.Forget(key);
    watch_.Forget(client.connection.Socket());
    clients_.erase(found);
    SetListening(true);
}

void Server::Implementation::SendDelayed(ServerTime now) {
    while (!due_.empty() && due_.begin()->first <= now)
        Settle(due_.begin()->second, now);
}

void Server::Implementation::CloseSilent(ServerTime now) {
    for (auto silent = shares_.OldestSilent(); silent && SilentUntil(*silent) <= now;
         silent = shares_.OldestSilent())
        Close(*silent, "it asked nothing in " + std::to_string(limits_.silentMilliseconds) + " ms");
}

void Server::Implementation::CloseStalled(ServerTime now) {
    if (buffered_ == 0 || now < nextSweep_) return;
    nextSweep_ = now + std::chrono::milliseconds(SweepMilliseconds());
    const auto oldest = now - std::chrono::milliseconds(limits_.frameMilliseconds);
    std::vector<std::uint64_t> stalled;
    for (const auto& [key, client] : clients_) {
        // A client that isn't read from at the moment isn't the one that lets the frame wait.
        const ClientConnection& connection = client->connection;
        if (client->reading && connection.UnfinishedBytes() != 0 && connection.FrameStarted() < oldest)
            stalled.push_back(key);
    }
    for (std::uint64_t key : stalled)
        Close(key, "a frame took too long to arrive");
}

Server::Server(std::uint16_t port, FrameHandlers& handlers, const ServerLimits& limits, Note note,
               Clock clock)
    : implementation_(
          std::make_unique<Implementation>(port, handlers, limits, std::move(note), std::move(clock))) {}

Server::~Server() = default;

std::uint16_t Server::Port() const {
    return implementation_->Port();
}

bool Server::Run() {
    return implementation_->Run();
}

void Server::Stop() noexcept {
    implementation_->Stop();
}

void Server::Interrupt() noexcept {
    implementation_->Interrupt();
}
