// The kernel's own sockets.
#include "tests/support/loopback_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace loopback_socket {

namespace {

/// Nobody here has more open at once.
constexpr int kMostDescriptors = 1024;

int Require(int result, const char* what) {
    if (result < 0) {
        std::perror(what);
        std::abort();
    }
    return result;
}

sockaddr_in Loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

}  // namespace

int Bind(std::uint16_t& port) {
    const int descriptor = Require(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    // Ports on which old connections linger may be had too: a busy test machine has few others.
    const int on = 1;
    Require(setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)), "setsockopt");
    sockaddr_in address = Loopback(0);
    Require(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), "bind");
    socklen_t length = sizeof(address);
    Require(getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length), "getsockname");
    port = ntohs(address.sin_port);
    return descriptor;
}

int Connect(std::uint16_t port) {
    const int descriptor = Require(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    const sockaddr_in address = Loopback(port);
    if (connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0)
        return descriptor;
    close(descriptor);
    return -1;
}

std::uint16_t FindOwnListener(std::uint16_t first, std::uint16_t limit) {
    for (int descriptor = 0; descriptor < kMostDescriptors; ++descriptor) {
        int listens = 0;
        socklen_t size = sizeof(listens);
        if (getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) != 0 || listens == 0) continue;
        sockaddr_in address{};
        size = sizeof(address);
        getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size);
        const std::uint16_t port = ntohs(address.sin_port);
        if (port >= first && port < limit) return port;
    }
    return 0;
}

void Close(int descriptor) {
    if (descriptor >= 0) close(descriptor);
}

std::size_t Receive(int descriptor, void* destination, std::size_t size) {
    ssize_t received;
    do {
        received = recv(descriptor, destination, size, 0);
    } while (received < 0 && errno == EINTR);
    return received > 0 ? static_cast<std::size_t>(received) : 0;
}

std::size_t Send(int descriptor, const void* source, std::size_t size) {
    ssize_t sent;
    do {
        sent = send(descriptor, source, size, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent > 0 ? static_cast<std::size_t>(sent) : 0;
}

void Shutdown(int descriptor) {
    shutdown(descriptor, SHUT_RDWR);
}

void StopReading(int descriptor) {
    shutdown(descriptor, SHUT_RD);
}

int Reset(int descriptor) {
    const linger abort{1, 0};
    setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
    sockaddr none{};
    none.sa_family = AF_UNSPEC;
    connect(descriptor, &none, sizeof(none));
    return descriptor;
}

void Listen(int descriptor, int backlog) {
    Require(listen(descriptor, backlog), "listen");
}

int Accept(int listener) {
    for (;;) {
        const int accepted = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (accepted >= 0) {
            const int on = 1;
            setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
            return accepted;
        }
        if (errno != EINTR && errno != ECONNABORTED) return -1;
    }
}

bool HasConnection(int listener) {
    pollfd waiting{listener, POLLIN, 0};
    return poll(&waiting, 1, 0) > 0;
}

void InterruptAccept(int listener, std::uint16_t) {
    shutdown(listener, SHUT_RDWR);
}

}  // namespace loopback_socket
