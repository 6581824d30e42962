// The seam to the system's sockets: no Winsock header can be included here.
#include "tests/support/loopback_stream.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {

/// A test can't go on without its other side.
int Require(int result, const char* what) {
    if (result < 0) {
        std::perror(what);
        std::abort();
    }
    return result;
}

int BoundSocket(std::uint16_t& port) {
    const int descriptor = Require(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    // Ports on which old connections linger may be had too: a busy test machine has few others.
    const int on = 1;
    Require(setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), "setsockopt");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Require(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), "bind");
    socklen_t length = sizeof address;
    Require(getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length), "getsockname");
    port = ntohs(address.sin_port);
    return descriptor;
}

void CloseDescriptor(int descriptor) {
    if (descriptor >= 0) close(descriptor);
}

}  // namespace

LoopbackStream::~LoopbackStream() {
    CloseDescriptor(descriptor_);
}

LoopbackStream& LoopbackStream::operator=(LoopbackStream&& other) noexcept {
    if (this != &other) {
        CloseDescriptor(descriptor_);
        descriptor_ = other.descriptor_;
        other.descriptor_ = -1;
    }
    return *this;
}

bool LoopbackStream::ReadExactly(void* destination, std::size_t size) {
    auto* next = static_cast<char*>(destination);
    while (size > 0) {
        const std::size_t received = ReadSome(next, size);
        if (received == 0) return false;
        next += received;
        size -= received;
    }
    return true;
}

std::size_t LoopbackStream::ReadSome(void* destination, std::size_t size) {
    ssize_t received;
    do {
        received = recv(descriptor_, destination, size, 0);
    } while (received < 0 && errno == EINTR);
    return received > 0 ? static_cast<std::size_t>(received) : 0;
}

bool LoopbackStream::WriteAll(const void* source, std::size_t size) {
    const auto* next = static_cast<const char*>(source);
    while (size > 0) {
        const ssize_t sent = send(descriptor_, next, size, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return false;
        next += sent;
        size -= static_cast<std::size_t>(sent);
    }
    return true;
}

void LoopbackStream::Interrupt() {
    shutdown(descriptor_, SHUT_RDWR);
}

void LoopbackStream::ResetPeer() {
    const linger abort{1, 0};
    setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    sockaddr none{};
    none.sa_family = AF_UNSPEC;
    connect(descriptor_, &none, sizeof none);
}

LoopbackListener::LoopbackListener(int backlog) : descriptor_(BoundSocket(port_)) {
    Require(listen(descriptor_, backlog), "listen");
}

LoopbackListener::~LoopbackListener() {
    CloseDescriptor(descriptor_);
}

bool LoopbackListener::Accept(LoopbackStream& stream) {
    for (;;) {
        const int accepted = accept4(descriptor_, nullptr, nullptr, SOCK_CLOEXEC);
        if (accepted >= 0) {
            const int on = 1;
            setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            stream = LoopbackStream(accepted);
            return true;
        }
        if (errno != EINTR && errno != ECONNABORTED) return false;
    }
}

bool LoopbackListener::HasConnection() const {
    pollfd waiting{descriptor_, POLLIN, 0};
    return poll(&waiting, 1, 0) > 0;
}

void LoopbackListener::Interrupt() {
    shutdown(descriptor_, SHUT_RDWR);
}

ClosedPort::ClosedPort() : descriptor_(BoundSocket(port_)) {}

ClosedPort::~ClosedPort() {
    CloseDescriptor(descriptor_);
}
