// The sockets on POSIX, the wait on epoll; no Windows header may be included.
#include "analyzer/sockets.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

namespace {

constexpr int kEventsPerWake = 128;

// Counts up from 0 everywhere else.
constexpr std::uint64_t kWakeKey = UINT64_MAX;

[[noreturn]] void ThrowErrno(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

int Descriptor(SocketHandle socket) {
    return static_cast<int>(socket);
}

int RequireDescriptor(int descriptor, const char* what) {
    if (descriptor < 0) ThrowErrno(what);
    return descriptor;
}

Transfer Outcome(ssize_t result, std::size_t* count) {
    if (result > 0) *count = static_cast<std::size_t>(result);
    if (result >= 0) return result > 0 ? Transfer::kDone : Transfer::kEnded;
    const bool again = errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
    return again ? Transfer::kNotNow : Transfer::kFailed;
}

}  // namespace

OwnedSocket::~OwnedSocket() {
    ::close(Descriptor(handle_));
}

SocketHandle ListenOnLoopback(std::uint16_t* port) {
    const int listener =
        RequireDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket");
    const int on = 1;
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(*port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    auto* const name = reinterpret_cast<sockaddr*>(&address);
    if (::bind(listener, name, length) != 0 || ::listen(listener, SOMAXCONN) != 0 ||
        ::getsockname(listener, name, &length) != 0) {
        const int error = errno;
        ::close(listener);
        throw std::system_error(error, std::generic_category(),
                                "cannot listen on 127.0.0.1:" + std::to_string(*port));
    }
    *port = ntohs(address.sin_port);
    return listener;
}

std::size_t RoomForConnections() noexcept {
    rlimit descriptors{};
    if (::getrlimit(RLIMIT_NOFILE, &descriptors) != 0) return SIZE_MAX;
    descriptors.rlim_cur = descriptors.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &descriptors);
    ::getrlimit(RLIMIT_NOFILE, &descriptors);
    return descriptors.rlim_cur - descriptors.rlim_cur / 8;
}

Accepted AcceptNext(SocketHandle listener, SocketHandle* connection, std::uint16_t* peerPort) noexcept {
    sockaddr_in peer{};
    socklen_t length = sizeof(peer);
    const int accepted = ::accept4(Descriptor(listener), reinterpret_cast<sockaddr*>(&peer), &length,
                                   SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (accepted < 0) {
        const bool exhausted = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
        return exhausted ? Accepted::kNoResources : Accepted::kNothing;
    }
    const int on = 1;
    ::setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    *connection = accepted;
    *peerPort = ntohs(peer.sin_port);
    return Accepted::kConnection;
}

Transfer ReceiveSome(SocketHandle socket, void* bytes, std::size_t room, std::size_t* count) noexcept {
    return Outcome(::recv(Descriptor(socket), bytes, room, 0), count);
}

Transfer SendSome(SocketHandle socket, const void* bytes, std::size_t size, std::size_t* count) noexcept {
    return Outcome(::send(Descriptor(socket), bytes, size, MSG_NOSIGNAL), count);
}

struct SocketWatch::System {
    System()
        : epoll(RequireDescriptor(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1")),
          wake(RequireDescriptor(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC), "eventfd")) {}

    void Control(int operation, SocketHandle socket, std::uint64_t key, std::uint32_t events) const {
        epoll_event event{};
        event.events = events;
        event.data.u64 = key;
        if (::epoll_ctl(Descriptor(epoll.Get()), operation, Descriptor(socket), &event) != 0)
            ThrowErrno("epoll_ctl");
    }

    static std::uint32_t Interest(bool read, bool write) {
        return (read ? std::uint32_t(EPOLLIN) : 0u) | (write ? std::uint32_t(EPOLLOUT) : 0u);
    }

    const OwnedSocket epoll;
    const OwnedSocket wake;
};

SocketWatch::SocketWatch() : system_(std::make_unique<System>()) {
    Add(system_->wake.Get(), kWakeKey, true, false);
}

SocketWatch::~SocketWatch() = default;

void SocketWatch::Add(SocketHandle socket, std::uint64_t key, bool read, bool write) {
    system_->Control(EPOLL_CTL_ADD, socket, key, System::Interest(read, write));
}

void SocketWatch::Change(SocketHandle socket, std::uint64_t key, bool read, bool write) {
    system_->Control(EPOLL_CTL_MOD, socket, key, System::Interest(read, write));
}

void SocketWatch::Forget(SocketHandle socket) noexcept {
    ::epoll_ctl(Descriptor(system_->epoll.Get()), EPOLL_CTL_DEL, Descriptor(socket), nullptr);
}

bool SocketWatch::Wait(int milliseconds, std::vector<SocketEvent>* events) {
    epoll_event found[kEventsPerWake];
    const int count = ::epoll_wait(Descriptor(system_->epoll.Get()), found, kEventsPerWake, milliseconds);
    if (count < 0 && errno != EINTR) ThrowErrno("epoll_wait");
    events->clear();
    bool woken = false;
    for (int index = 0; index < count; ++index) {
        const std::uint32_t seen = found[index].events;
        if (found[index].data.u64 == kWakeKey) {
            woken = true;
            std::uint64_t wakes = 0;
            [[maybe_unused]] const ssize_t read =
                ::read(Descriptor(system_->wake.Get()), &wakes, sizeof(wakes));
        } else {
            events->push_back(
                {found[index].data.u64, (seen & EPOLLIN) != 0, (seen & (EPOLLERR | EPOLLHUP)) != 0});
        }
    }
    return !woken;
}

void SocketWatch::Wake() noexcept {
    const std::uint64_t one = 1;
    // It can only fail when the counter is full, and then the wake is on its way.
    [[maybe_unused]] const ssize_t written = ::write(Descriptor(system_->wake.Get()), &one, sizeof(one));
}
