// The sockets on Winsock, the wait on select: unlike WSAPoll it tells nothing of a socket that nobody waits
// for, however its connection stands, so a connection that is only kept for a delayed answer wakes nobody.

// Room for the server's connections, its listener and the wake; Winsock's header asks for it.
#define FD_SETSIZE 4100

#include "analyzer/sockets.h"

#include <winsock2.h>

#include <string>
#include <system_error>
#include <unordered_map>

namespace {

[[noreturn]] void ThrowLast(const char* what) {
    throw std::system_error(WSAGetLastError(), std::system_category(), what);
}

/// Started with the first socket, ended by the process.
void StartWinsock() {
    static const int error = [] {
        WSADATA data;
        return WSAStartup(MAKEWORD(2, 2), &data);
    }();
    if (error != 0) throw std::system_error(error, std::system_category(), "WSAStartup");
}

SOCKET Winsocket(SocketHandle socket) {
    return static_cast<SOCKET>(socket);
}

SocketHandle MakeSocket(int type) {
    StartWinsock();
    const SOCKET made = socket(AF_INET, type, 0);
    if (made == INVALID_SOCKET) ThrowLast("socket");
    return static_cast<SocketHandle>(made);
}

void SetNonblocking(SOCKET s) noexcept {
    u_long on = 1;
    ioctlsocket(s, static_cast<long>(FIONBIO), &on);
}

/// Binds to 127.0.0.1:`port` and returns the port; 0 with the last error.
std::uint16_t BindToLoopback(SOCKET s, std::uint16_t port) noexcept {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int length = sizeof(address);
    auto* const name = reinterpret_cast<sockaddr*>(&address);
    if (bind(s, name, length) != 0 || getsockname(s, name, &length) != 0) return 0;
    return ntohs(address.sin_port);
}

Transfer Outcome(int result, std::size_t* count) noexcept {
    if (result > 0) *count = static_cast<std::size_t>(result);
    if (result >= 0) return result > 0 ? Transfer::kDone : Transfer::kEnded;
    return WSAGetLastError() == WSAEWOULDBLOCK ? Transfer::kNotNow : Transfer::kFailed;
}

/// Appends to a set. FD_SET would look for the socket in all of it first.
void Append(SOCKET s, fd_set* set) {
    set->fd_array[set->fd_count++] = s;
}

}  // namespace

OwnedSocket::~OwnedSocket() {
    closesocket(Winsocket(handle_));
}

SocketHandle ListenOnLoopback(std::uint16_t* port) {
    const SOCKET listener = Winsocket(MakeSocket(SOCK_STREAM));
    // Otherwise another program could share the port.
    const BOOL on = TRUE;
    setsockopt(listener, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&on), sizeof(on));
    SetNonblocking(listener);
    const std::uint16_t bound = BindToLoopback(listener, *port);
    if (bound == 0 || listen(listener, SOMAXCONN) != 0) {
        const int error = WSAGetLastError();
        closesocket(listener);
        throw std::system_error(error, std::system_category(),
                                "cannot listen on 127.0.0.1:" + std::to_string(*port));
    }
    *port = bound;
    return static_cast<SocketHandle>(listener);
}

std::size_t RoomForConnections() noexcept {
    constexpr std::size_t kListenerAndWake = 2;
    return FD_SETSIZE - kListenerAndWake;
}

Accepted AcceptNext(SocketHandle listener, SocketHandle* connection, std::uint16_t* peerPort) noexcept {
    sockaddr_in peer{};
    int length = sizeof(peer);
    const SOCKET accepted = accept(Winsocket(listener), reinterpret_cast<sockaddr*>(&peer), &length);
    if (accepted == INVALID_SOCKET) {
        const int error = WSAGetLastError();
        return error == WSAEMFILE || error == WSAENOBUFS ? Accepted::kNoResources : Accepted::kNothing;
    }
    const BOOL on = TRUE;
    setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof(on));
    SetNonblocking(accepted);
    *connection = static_cast<SocketHandle>(accepted);
    *peerPort = ntohs(peer.sin_port);
    return Accepted::kConnection;
}

Transfer ReceiveSome(SocketHandle socket, void* bytes, std::size_t room, std::size_t* count) noexcept {
    return Outcome(recv(Winsocket(socket), static_cast<char*>(bytes), static_cast<int>(room), 0), count);
}

Transfer SendSome(SocketHandle socket, const void* bytes, std::size_t size, std::size_t* count) noexcept {
    return Outcome(send(Winsocket(socket), static_cast<const char*>(bytes), static_cast<int>(size), 0),
                   count);
}

struct SocketWatch::System {
    struct Watched {
        std::uint64_t key;
        bool read;
        bool write;
    };

    // A datagram socket that is its own peer: what it sends makes it readable.
    System() : wake(MakeSocket(SOCK_DGRAM)) {
        const SOCKET s = Winsocket(wake.Get());
        sockaddr_in self{};
        self.sin_family = AF_INET;
        self.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        self.sin_port = htons(BindToLoopback(s, 0));
        if (self.sin_port == 0 || connect(s, reinterpret_cast<const sockaddr*>(&self), sizeof(self)) != 0)
            ThrowLast("connect");
        SetNonblocking(s);
    }

    const OwnedSocket wake;
    std::unordered_map<SOCKET, Watched> sockets;
    fd_set readable{};
    fd_set writable{};
};

SocketWatch::SocketWatch() : system_(std::make_unique<System>()) {}

SocketWatch::~SocketWatch() = default;

void SocketWatch::Add(SocketHandle socket, std::uint64_t key, bool read, bool write) {
    if (system_->sockets.size() + 1 >= FD_SETSIZE)
        throw std::system_error(WSAENOBUFS, std::system_category(), "too many sockets to wait for");
    Change(socket, key, read, write);
}

void SocketWatch::Change(SocketHandle socket, std::uint64_t key, bool read, bool write) {
    system_->sockets[Winsocket(socket)] = {key, read, write};
}

void SocketWatch::Forget(SocketHandle socket) noexcept {
    system_->sockets.erase(Winsocket(socket));
}

bool SocketWatch::Wait(int milliseconds, std::vector<SocketEvent>* events) {
    System& system = *system_;
    const SOCKET wake = Winsocket(system.wake.Get());
    system.readable.fd_count = system.writable.fd_count = 0;
    Append(wake, &system.readable);
    for (const auto& [s, watched] : system.sockets) {
        if (watched.read) Append(s, &system.readable);
        if (watched.write) Append(s, &system.writable);
    }
    timeval limit = {milliseconds / 1000, milliseconds % 1000 * 1000};
    if (select(0, &system.readable, &system.writable, nullptr, milliseconds < 0 ? nullptr : &limit) ==
        SOCKET_ERROR)
        ThrowLast("select");
    events->clear();
    bool woken = false;
    for (u_int index = 0; index < system.readable.fd_count; ++index) {
        const SOCKET s = system.readable.fd_array[index];
        if (s == wake) {
            char byte = 0;
            woken = recv(wake, &byte, sizeof(byte), 0) > 0;
        } else {
            events->push_back({system.sockets[s].key, true, false});
        }
    }
    for (u_int index = 0; index < system.writable.fd_count; ++index)
        events->push_back({system.sockets[system.writable.fd_array[index]].key, false, false});
    return !woken;
}

void SocketWatch::Wake() noexcept {
    send(Winsocket(system_->wake.Get()), "", 1, 0);
}
