// See kernel_peers.h.
#include "bench/provider/kernel_peers.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

namespace {

constexpr std::size_t kRequestSize = 340;
constexpr std::size_t kResponseSize = 156;

void Require(bool condition, const char* what) {
    if (condition) return;
    std::perror(what);
    std::exit(2);
}

sockaddr_in LoopbackAddress(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int NewSocket() {
    const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    Require(s >= 0, "socket");
    return s;
}

void SetOption(int s, int level, int name, int value) {
    Require(setsockopt(s, level, name, &value, sizeof(value)) == 0, "setsockopt");
}

void SetTimeout(int s, int name) {
    const timeval limit{10, 0};
    Require(setsockopt(s, SOL_SOCKET, name, &limit, sizeof(limit)) == 0, "setsockopt");
}

void SetNonBlocking(int s, int on) {
    Require(ioctl(s, FIONBIO, &on) == 0, "ioctl");
}

void WaitFor(int s, bool write, int seconds) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(s, &set);
    timeval limit{seconds, 0};
    Require(select(s + 1, write ? nullptr : &set, write ? &set : nullptr, nullptr, &limit) == 1, "select");
}

bool ReadExactly(int s, char* destination, std::size_t size) {
    while (size > 0) {
        const ssize_t got = recv(s, destination, size, 0);
        if (got <= 0) return false;
        destination += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

std::uint32_t WordAt(const char* bytes) {
    std::uint32_t word;
    std::memcpy(&word, bytes, sizeof(word));
    return word;
}

void PutWord(char* bytes, std::uint32_t word) {
    std::memcpy(bytes, &word, sizeof(word));
}

void ServeSink(int s) {
    char buffer[4096];
    while (recv(s, buffer, sizeof(buffer), 0) > 0) {
    }
}

void ServeEcho(int s) {
    SetOption(s, IPPROTO_TCP, TCP_NODELAY, 1);
    std::vector<char> buffer(65536);
    for (;;) {
        const ssize_t got = recv(s, buffer.data(), buffer.size(), 0);
        if (got <= 0) return;
        if (send(s, buffer.data(), static_cast<std::size_t>(got), MSG_NOSIGNAL) != got) return;
    }
}

/// One request, one answer naming it, at a time.
void ServeVerdicts(int s) {
    char request[8192];
    char response[kResponseSize] = {};
    PutWord(response, kResponseSize);
    PutWord(response + 4, 8);
    std::size_t have = 0;
    for (;;) {
        const ssize_t got = recv(s, request + have, sizeof(request) - have, 0);
        if (got <= 0) return;
        have += static_cast<std::size_t>(got);
        if (have < 12 || have < WordAt(request)) continue;
        have = 0;
        std::memcpy(response + 12, request + 8, 4);
        if (send(s, response, sizeof(response), MSG_NOSIGNAL) < 0) return;
    }
}

}  // namespace

struct LoopbackServer::Running {
    int listener = -1;
    std::uint16_t port = 0;
    std::atomic<bool> stopping{false};
    std::thread thread;

    void Accept(Kind kind) const {
        while (!stopping) {
            const int s = accept(listener, nullptr, nullptr);
            if (s < 0) return;
            if (kind == Kind::kSink) ServeSink(s);
            if (kind == Kind::kEcho) ServeEcho(s);
            if (kind == Kind::kVerdict) ServeVerdicts(s);
            close(s);
        }
    }
};

namespace {

/// A listener on a port that the kernel chose.
int Listen(int room, std::uint16_t* port) {
    const int listener = NewSocket();
    sockaddr_in address = LoopbackAddress(0);
    socklen_t length = sizeof(address);
    auto* name = reinterpret_cast<sockaddr*>(&address);
    Require(bind(listener, name, length) == 0, "bind");
    Require(listen(listener, room) == 0, "listen");
    Require(getsockname(listener, name, &length) == 0, "getsockname");
    *port = ntohs(address.sin_port);
    return listener;
}

}  // namespace

LoopbackServer::LoopbackServer(Kind kind) : running_(std::make_unique<Running>()) {
    running_->listener = Listen(4096, &running_->port);
    running_->thread = std::thread([this, kind] { running_->Accept(kind); });
}

LoopbackServer::~LoopbackServer() {
    running_->stopping = true;
    shutdown(running_->listener, SHUT_RDWR);
    running_->thread.join();
    close(running_->listener);
}

std::uint16_t LoopbackServer::Port() const {
    return running_->port;
}

ConnectionBacklog::ConnectionBacklog() : listener_(Listen(kRoom, &port_)) {
    SetNonBlocking(listener_, 1);
}

ConnectionBacklog::~ConnectionBacklog() {
    Empty();
    close(listener_);
}

void ConnectionBacklog::Empty() const {
    for (int s; (s = accept(listener_, nullptr, nullptr)) >= 0;)
        close(s);
}

void KernelConnectAndClose(std::uint16_t port) {
    const int s = NewSocket();
    const sockaddr_in address = LoopbackAddress(port);
    Require(connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "connect");
    close(s);
}

void KernelConnectWithVerdict(std::uint16_t analyzerPort, std::uint16_t port) {
    static char request[kRequestSize];
    PutWord(request, kRequestSize);
    PutWord(request + 4, 8);
    char response[kResponseSize];

    const int application = NewSocket();
    const int spy = NewSocket();
    SetOption(spy, SOL_SOCKET, SO_SNDBUF, 32768);
    SetOption(spy, SOL_SOCKET, SO_RCVBUF, 32768);
    SetOption(spy, IPPROTO_TCP, TCP_NODELAY, 1);
    SetNonBlocking(spy, 1);
    const sockaddr_in analyzer = LoopbackAddress(analyzerPort);
    if (connect(spy, reinterpret_cast<const sockaddr*>(&analyzer), sizeof(analyzer)) != 0)
        WaitFor(spy, true, 1);
    SetNonBlocking(spy, 0);
    SetTimeout(spy, SO_SNDTIMEO);
    SetTimeout(spy, SO_RCVTIMEO);
    Require(send(spy, request, sizeof(request), MSG_NOSIGNAL) == sizeof(request), "send");
    WaitFor(spy, false, 3);
    Require(ReadExactly(spy, response, 8), "recv");
    WaitFor(spy, false, 3);
    Require(ReadExactly(spy, response + 8, kResponseSize - 8), "recv");

    const sockaddr_in destination = LoopbackAddress(port);
    Require(connect(application, reinterpret_cast<const sockaddr*>(&destination), sizeof(destination)) == 0,
            "connect");
    sockaddr_in local{};
    socklen_t length = sizeof(local);
    Require(getsockname(application, reinterpret_cast<sockaddr*>(&local), &length) == 0, "getsockname");
    close(spy);
    close(application);
}
