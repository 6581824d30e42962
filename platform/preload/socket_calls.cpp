// The calls that make, name and end sockets, from socket() to setsockopt().
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstring>

#include "platform/preload/engine.h"
#include "platform/preload/engine_call.h"
#include "platform/preload/real_calls.h"
#include "platform/preload/sockets.h"
#include "platform/preload/waits.h"

using preload::Address;
using preload::EngineCall;
using preload::Real;
using preload::Result;
using preload::Signals;
using preload::SocketRecord;
using preload::TheBridge;
using preload::Use;

namespace {

/// TCP and UDP; everything else is left alone.
bool IsLayered(int domain, int type, int protocol) {
    if (domain != AF_INET && domain != AF_INET6) return false;
    switch (type & ~(SOCK_NONBLOCK | SOCK_CLOEXEC)) {
        case SOCK_STREAM:
            return protocol == 0 || protocol == IPPROTO_TCP;
        case SOCK_DGRAM:
            return protocol == 0 || protocol == IPPROTO_UDP;
        default:
            return false;
    }
}

int MakeWithEngine(const preload::Bridge& bridge, bool v6, bool stream, preload::MadeSocket* made) {
    const EngineCall call(-1, Signals::HeldBack);
    return bridge.make(v6, stream, made);
}

int PublishNew(const preload::MadeSocket& made, bool v6, bool stream, int flags) {
    const int descriptor = preload::Publish(made, v6, stream, flags);
    // Winsock's IPv6 sockets take no IPv4 traffic before they are told to.
    const int off = 0;
    if (descriptor >= 0 && v6) Real().setsockopt(descriptor, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof(off));
    return descriptor;
}

// ---- Connecting

/// What a connect to this address means here: the unspecified address is this machine.
void FillUnspecified(Address* peer) {
    if (preload::FamilyOf(*peer) == AF_INET) {
        in_addr v4;
        std::memcpy(&v4, peer->bytes + offsetof(sockaddr_in, sin_addr), sizeof(v4));
        v4.s_addr = v4.s_addr == htonl(INADDR_ANY) ? htonl(INADDR_LOOPBACK) : v4.s_addr;
        std::memcpy(peer->bytes + offsetof(sockaddr_in, sin_addr), &v4, sizeof(v4));
    } else {
        in6_addr v6;
        std::memcpy(&v6, peer->bytes + offsetof(sockaddr_in6, sin6_addr), sizeof(v6));
        if (IN6_IS_ADDR_UNSPECIFIED(&v6)) v6 = in6addr_loopback;
        std::memcpy(peer->bytes + offsetof(sockaddr_in6, sin6_addr), &v6, sizeof(v6));
    }
}

int TakeError(SocketRecord& record) {
    int pending = 0;
    EngineCall call(record.lowerDescriptor);
    const preload::Bridge* const bridge = TheBridge();
    const int error = bridge != nullptr ? bridge->takeError(record.socket, &pending) : 0;
    if (error != 0) return error;
    return pending;
}

/// The second connect of a socket, which asks how the first one ends.
int ConnectAgain(int fd, SocketRecord& record) {
    pollfd entry = {fd, POLLOUT, 0};
    if (poll(&entry, 1, 0) == 0) return Result(EALREADY);
    record.connecting.store(false);
    const int error = TakeError(record);
    sockaddr_storage peer;
    socklen_t length = sizeof(peer);
    // Somebody has taken the error before.
    if (error == 0 && Real().getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0)
        return Result(ECONNABORTED);
    return Result(error);
}

int WaitForConnect(int fd, SocketRecord& record) {
    const int error = preload::WaitFor(fd, POLLOUT, record.sendTimeout.load());
    if (error == EAGAIN) return Result(EINPROGRESS);
    if (error != 0) return Result(error);
    record.connecting.store(false);
    return Result(TakeError(record));
}

int ConnectWithEngine(int fd, SocketRecord& record, const Address& peer) {
    const bool waits = !record.nonBlocking.load();
    int error;
    if (waits) preload::SetKernelMode(fd, true);
    {
        const EngineCall call(record.lowerDescriptor, Signals::HeldBack);
        const preload::Bridge* const bridge = TheBridge();
        error = bridge != nullptr ? EngineCall::ErrorOf(bridge->connect(record.socket, peer)) : ENETDOWN;
    }
    if (waits) preload::SetKernelMode(fd, false);
    if (error != EAGAIN && error != EINPROGRESS) return Result(error);
    if (!record.stream) return Result(error);
    record.connecting.store(true);
    return waits ? WaitForConnect(fd, record) : Result(EINPROGRESS);
}

// ---- Options

struct OptionRow {
    int level;
    int name;
    preload::SharedOption option;
};

constexpr OptionRow kSharedOptions[] = {
    {SOL_SOCKET, SO_KEEPALIVE, preload::SharedOption::KeepAlive},
    {SOL_SOCKET, SO_BROADCAST, preload::SharedOption::Broadcast},
    {SOL_SOCKET, SO_OOBINLINE, preload::SharedOption::OutOfBandInline},
    {IPPROTO_TCP, TCP_NODELAY, preload::SharedOption::NoDelay},
    {SOL_SOCKET, SO_SNDBUF, preload::SharedOption::SendBuffer},
    {SOL_SOCKET, SO_RCVBUF, preload::SharedOption::ReceiveBuffer},
};

/// Options that make the kernel say more of a datagram than Winsock passes on.
bool AsksForControl(int level, int name) {
    switch (level) {
        case SOL_SOCKET:
            return name == SO_TIMESTAMP || name == SO_TIMESTAMPNS || name == SO_TIMESTAMPING ||
                   name == SO_RXQ_OVFL;
        case IPPROTO_IP:
            return name == IP_PKTINFO || name == IP_RECVTTL || name == IP_RECVTOS || name == IP_RECVERR ||
                   name == IP_RECVOPTS || name == IP_RECVORIGDSTADDR;
        case IPPROTO_IPV6:
            return name == IPV6_RECVPKTINFO || name == IPV6_RECVHOPLIMIT || name == IPV6_RECVTCLASS ||
                   name == IPV6_RECVERR || name == IPV6_RECVRTHDR || name == IPV6_RECVHOPOPTS ||
                   name == IPV6_RECVDSTOPTS || name == IPV6_RECVPATHMTU;
        case IPPROTO_UDP:
            return true;
        default:
            return false;
    }
}

/// The kernel has taken the option; this is what else it means.
void NoteOption(SocketRecord& record, int level, int name, const void* value, socklen_t length) {
    if (level == SOL_SOCKET && (name == SO_RCVTIMEO || name == SO_SNDTIMEO) && length >= sizeof(timeval)) {
        timeval time;
        std::memcpy(&time, value, sizeof(time));
        const std::int64_t nanoseconds = time.tv_sec * std::int64_t{1'000'000'000} + time.tv_usec * 1000;
        (name == SO_RCVTIMEO ? record.receiveTimeout : record.sendTimeout).store(nanoseconds);
        return;
    }
    if (!record.stream && AsksForControl(level, name)) record.keepsControl.store(true);
    const preload::Bridge* const bridge = preload::RunningBridge();
    if (bridge == nullptr) return;
    const EngineCall call(record.lowerDescriptor);
    if (level == SOL_SOCKET && name == SO_LINGER && length >= sizeof(linger)) {
        linger wanted;
        std::memcpy(&wanted, value, sizeof(wanted));
        bridge->setLinger(record.socket, wanted.l_onoff != 0, wanted.l_linger);
        return;
    }
    for (const OptionRow& row : kSharedOptions) {
        if (row.level != level || row.name != name || length < sizeof(int)) continue;
        int number;
        std::memcpy(&number, value, sizeof(number));
        bridge->setOption(record.socket, row.option, number);
    }
}

// ---- Binding, listening, accepting

Address AnyAddress(bool v6) {
    Address any;
    any.length = v6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    std::memset(any.bytes, 0, any.length);
    const sa_family_t family = v6 ? AF_INET6 : AF_INET;
    std::memcpy(any.bytes, &family, sizeof(family));
    return any;
}

int BindWithEngine(const preload::Bridge& bridge, SocketRecord& record, const Address& local) {
    const EngineCall call(record.lowerDescriptor, Signals::HeldBack);
    return EngineCall::ErrorOf(bridge.bind(record.socket, local));
}

int ListenWithEngine(const preload::Bridge& bridge, SocketRecord& record, int backlog) {
    const EngineCall call(record.lowerDescriptor, Signals::HeldBack);
    return EngineCall::ErrorOf(bridge.listen(record.socket, backlog));
}

int AcceptWithEngine(int fd, SocketRecord& listener, sockaddr* name, socklen_t* length, int flags) {
    const bool waits = !listener.nonBlocking.load();
    preload::MadeSocket made;
    Address peer;
    for (;;) {
        // First, since the kernel's listener blocks: whatever calls it must know that something is there.
        int error = waits ? preload::WaitFor(fd, POLLIN, listener.receiveTimeout.load()) : 0;
        if (error != 0) return Result(error);
        {
            const EngineCall call(listener.lowerDescriptor);
            const preload::Bridge* const bridge = TheBridge();
            error = bridge != nullptr ? EngineCall::ErrorOf(bridge->accept(listener.socket, &made, &peer))
                                      : ENETDOWN;
        }
        // The base provider made it non-blocking for its own use.
        if (waits) preload::SetKernelMode(fd, false);
        if (error == EAGAIN && waits) continue;
        if (error != 0) return Result(error);
        break;
    }
    const int accepted = preload::Publish(made, listener.v6, true, flags);
    if (accepted >= 0) preload::WriteAddress(peer, name, length);
    return accepted;
}

}  // namespace

QX_REPLACES int socket(int domain, int type, int protocol) noexcept {
    if (preload::IsInside()) return preload::KeepInternal(Real().socket(domain, type, protocol));
    if (!IsLayered(domain, type, protocol)) return Real().socket(domain, type, protocol);
    const preload::Bridge* const bridge = TheBridge();
    if (bridge == nullptr) return Real().socket(domain, type, protocol);
    const bool stream = (type & ~(SOCK_NONBLOCK | SOCK_CLOEXEC)) == SOCK_STREAM;
    preload::MadeSocket made;
    const int error = MakeWithEngine(*bridge, domain == AF_INET6, stream, &made);
    if (error == 0) return PublishNew(made, domain == AF_INET6, stream, type);
    if (error != preload::kCannotStart) return Result(error);
    preload::GiveUpEngine();
    return Real().socket(domain, type, protocol);
}

QX_REPLACES int bind(int fd, const sockaddr* name, socklen_t length) noexcept {
    if (preload::IsInside()) return preload::Noted(fd, Real().bind(fd, name, length));
    const Use use(fd);
    Address local;
    // What is no address of the family, the kernel may understand all the same, or say what is wrong.
    if (!use || preload::ReadAddress(*use, name, length, &local) != 0) return Real().bind(fd, name, length);
    const preload::Bridge* const bridge = TheBridge();
    if (bridge == nullptr) return Real().bind(fd, name, length);
    return Result(BindWithEngine(*bridge, *use, local));
}

QX_REPLACES int connect(int fd, const sockaddr* name, socklen_t length) {
    if (preload::IsInside()) return preload::Noted(fd, Real().connect(fd, name, length));
    if (name != nullptr && length >= sizeof(sa_family_t) && preload::IsInternet(name))
        preload::AdoptInherited(fd);
    const Use use(fd);
    if (!use || TheBridge() == nullptr) return Real().connect(fd, name, length);
    Address peer;
    const int error = preload::ReadAddress(*use, name, length, &peer);
    if (error == EAFNOSUPPORT && name->sa_family == AF_UNSPEC) {
        use->connecting.store(false);
        return Real().connect(fd, name, length);
    }
    if (error != 0) return Result(error);
    if (use->connecting.load()) return ConnectAgain(fd, *use);
    if (use->stream && preload::PortOf(peer) == 0) return Result(ECONNREFUSED);
    FillUnspecified(&peer);
    return ConnectWithEngine(fd, *use, peer);
}

QX_REPLACES int listen(int fd, int backlog) noexcept {
    if (preload::IsInside()) return preload::Noted(fd, Real().listen(fd, backlog));
    const Use use(fd);
    const preload::Bridge* const bridge = use ? TheBridge() : nullptr;
    if (bridge == nullptr) return Real().listen(fd, backlog);
    int error = ListenWithEngine(*bridge, *use, backlog);
    // Winsock wants an address first; the kernel finds one by itself.
    if (error == EINVAL && use->stream && BindWithEngine(*bridge, *use, AnyAddress(use->v6)) == 0)
        error = ListenWithEngine(*bridge, *use, backlog);
    return Result(error);
}

QX_REPLACES int accept4(int fd, sockaddr* name, socklen_t* length, int flags) {
    if (preload::IsInside()) return preload::KeepInternal(Real().accept4(fd, name, length, flags));
    preload::AdoptInherited(fd);
    const Use use(fd);
    if (!use || !use->stream || TheBridge() == nullptr || (flags & ~(SOCK_NONBLOCK | SOCK_CLOEXEC)) != 0)
        return Real().accept4(fd, name, length, flags);
    return AcceptWithEngine(fd, *use, name, length, flags);
}

QX_REPLACES int accept(int fd, sockaddr* name, socklen_t* length) {
    return accept4(fd, name, length, 0);
}

QX_REPLACES int shutdown(int fd, int how) noexcept {
    if (preload::IsInside()) return preload::Noted(fd, Real().shutdown(fd, how));
    const Use use(fd);
    const preload::Bridge* const bridge = use && how >= SHUT_RD && how <= SHUT_RDWR ? TheBridge() : nullptr;
    if (bridge == nullptr) return Real().shutdown(fd, how);
    int error;
    {
        const EngineCall call(use->lowerDescriptor, Signals::HeldBack);
        error = bridge->shutdown(use->socket, how == SHUT_RD   ? preload::Ends::Receive
                                              : how == SHUT_WR ? preload::Ends::Send
                                                               : preload::Ends::Both);
    }
    // Winsock ends connections alone; the kernel also listeners, and the waits on datagram sockets.
    if (!use->stream || error == ENOTCONN) return Real().shutdown(fd, how);
    return Result(error);
}

QX_REPLACES int getsockname(int fd, sockaddr* name, socklen_t* length) noexcept {
    const Use use(preload::IsInside() ? -1 : fd);
    const preload::Bridge* const bridge = use ? preload::RunningBridge() : nullptr;
    if (bridge == nullptr || name == nullptr) return Real().getsockname(fd, name, length);
    Address local;
    int error;
    {
        const EngineCall call(use->lowerDescriptor);
        error = bridge->localName(use->socket, &local);
    }
    // Winsock has no name for a socket without an address.
    return error != 0 ? Real().getsockname(fd, name, length)
                      : Result(preload::WriteAddress(local, name, length));
}

QX_REPLACES int getpeername(int fd, sockaddr* name, socklen_t* length) noexcept {
    const Use use(preload::IsInside() ? -1 : fd);
    const preload::Bridge* const bridge = use ? preload::RunningBridge() : nullptr;
    if (bridge == nullptr || name == nullptr) return Real().getpeername(fd, name, length);
    // Winsock remembers the peer of a connection that was reset; for the kernel it has none any more.
    sockaddr_storage ignored;
    socklen_t room = sizeof(ignored);
    if (Real().getpeername(fd, reinterpret_cast<sockaddr*>(&ignored), &room) != 0) return -1;
    Address peer;
    int error;
    {
        const EngineCall call(use->lowerDescriptor);
        error = EngineCall::ErrorOf(bridge->peerName(use->socket, &peer));
    }
    return Result(error != 0 ? error : preload::WriteAddress(peer, name, length));
}

QX_REPLACES int getsockopt(int fd, int level, int option, void* value, socklen_t* length) noexcept {
    const bool asksForError = level == SOL_SOCKET && option == SO_ERROR && value != nullptr &&
                              length != nullptr && *length >= sizeof(int);
    const Use use(!asksForError || preload::IsInside() ? -1 : fd);
    if (!use || preload::RunningBridge() == nullptr)
        return Real().getsockopt(fd, level, option, value, length);
    const int error = TakeError(*use);
    std::memcpy(value, &error, sizeof(error));
    *length = sizeof(error);
    return 0;
}

QX_REPLACES int setsockopt(int fd, int level, int option, const void* value, socklen_t length) noexcept {
    const int result = Real().setsockopt(fd, level, option, value, length);
    if (result != 0 || preload::IsInside()) return result;
    const Use use(fd);
    if (use) NoteOption(*use, level, option, value, length);
    return result;
}
