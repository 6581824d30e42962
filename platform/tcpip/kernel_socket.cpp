// The only file of the base provider that includes the POSIX socket headers. Layouts that the seam shares
// with the kernel are asserted here.
#include "platform/tcpip/kernel_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace tcpip::kernel {
namespace {

static_assert(sizeof(IoBuffer) == sizeof(iovec) && offsetof(IoBuffer, size) == offsetof(iovec, iov_len));
static_assert(sizeof(PollEntry) == sizeof(pollfd) && offsetof(PollEntry, got) == offsetof(pollfd, revents));
static_assert(kReadable == POLLIN && kPriority == POLLPRI && kWritable == POLLOUT && kError == POLLERR &&
              kHangUp == POLLHUP && kPeerClosed == POLLRDHUP);

constexpr std::int64_t kNanosPerSecond = 1000000000;

struct Address {
    sockaddr_storage storage;
    socklen_t length = sizeof(sockaddr_storage);

    sockaddr* Get() { return reinterpret_cast<sockaddr*>(&storage); }
    const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

void ToKernel(const Endpoint& endpoint, Address* address) {
    if (endpoint.v6) {
        sockaddr_in6 v6 = {};
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(endpoint.port);
        v6.sin6_flowinfo = endpoint.flowInfo;
        std::memcpy(&v6.sin6_addr, endpoint.address.data(), 16);
        v6.sin6_scope_id = endpoint.scopeId;
        std::memcpy(&address->storage, &v6, sizeof(v6));
        address->length = sizeof(v6);
    } else {
        sockaddr_in v4 = {};
        v4.sin_family = AF_INET;
        v4.sin_port = htons(endpoint.port);
        std::memcpy(&v4.sin_addr, endpoint.address.data(), 4);
        std::memcpy(&address->storage, &v4, sizeof(v4));
        address->length = sizeof(v4);
    }
}

/// Left alone when the kernel gave no address (a stream's receive).
void FromKernel(const Address& address, Endpoint* endpoint) {
    if (address.length >= sizeof(sockaddr_in6) && address.storage.ss_family == AF_INET6) {
        sockaddr_in6 v6;
        std::memcpy(&v6, &address.storage, sizeof(v6));
        *endpoint = AnyEndpoint(true);
        endpoint->port = ntohs(v6.sin6_port);
        endpoint->flowInfo = v6.sin6_flowinfo;
        std::memcpy(endpoint->address.data(), &v6.sin6_addr, 16);
        endpoint->scopeId = v6.sin6_scope_id;
    } else if (address.length >= sizeof(sockaddr_in) && address.storage.ss_family == AF_INET) {
        sockaddr_in v4;
        std::memcpy(&v4, &address.storage, sizeof(v4));
        *endpoint = AnyEndpoint(false);
        endpoint->port = ntohs(v4.sin_port);
        std::memcpy(endpoint->address.data(), &v4.sin_addr, 4);
    }
}

/// Makes the call again while a signal interrupts it.
template <typename Call>
auto Uninterrupted(Call call) {
    for (;;) {
        const auto result = call();
        if (result >= 0 || errno != EINTR) return result;
    }
}

int ErrorOf(int result) {
    return result < 0 ? errno : 0;
}

int ToKernelFlags(unsigned flags) {
    return ((flags & kDontWait) != 0 ? MSG_DONTWAIT : 0) | ((flags & kPeek) != 0 ? MSG_PEEK : 0) |
           ((flags & kOutOfBand) != 0 ? MSG_OOB : 0) | ((flags & kWaitAll) != 0 ? MSG_WAITALL : 0) |
           ((flags & kDontRoute) != 0 ? MSG_DONTROUTE : 0);
}

timespec ToTimespec(std::int64_t nanoseconds) {
    timespec time;
    time.tv_sec = static_cast<time_t>(nanoseconds / kNanosPerSecond);
    time.tv_nsec = static_cast<long>(nanoseconds % kNanosPerSecond);
    return time;
}

struct OptionName {
    int level;
    int name;
};

OptionName NameOf(Option option) {
    switch (option) {
        case Option::SendBuffer:
            return {SOL_SOCKET, SO_SNDBUF};
        case Option::ReceiveBuffer:
            return {SOL_SOCKET, SO_RCVBUF};
        case Option::KeepAlive:
            return {SOL_SOCKET, SO_KEEPALIVE};
        case Option::Broadcast:
            return {SOL_SOCKET, SO_BROADCAST};
        case Option::ReuseAddress:
            return {SOL_SOCKET, SO_REUSEADDR};
        case Option::OutOfBandInline:
            return {SOL_SOCKET, SO_OOBINLINE};
        case Option::DontRoute:
            return {SOL_SOCKET, SO_DONTROUTE};
        case Option::NoDelay:
            return {IPPROTO_TCP, TCP_NODELAY};
        case Option::KeepIdleSeconds:
            return {IPPROTO_TCP, TCP_KEEPIDLE};
        case Option::KeepIntervalSeconds:
            return {IPPROTO_TCP, TCP_KEEPINTVL};
        case Option::MaxSegment:
            return {IPPROTO_TCP, TCP_MAXSEG};
        case Option::TypeOfService:
            return {IPPROTO_IP, IP_TOS};
        case Option::DontFragment:
            return {IPPROTO_IP, IP_MTU_DISCOVER};
        case Option::V6Only:
            return {IPPROTO_IPV6, IPV6_V6ONLY};
        case Option::Listens:
            return {SOL_SOCKET, SO_ACCEPTCONN};
    }
    return {-1, -1};
}

/// Several buffers, or a named peer: the general form of a transfer.
msghdr MakeMessage(const IoBuffer* buffers, std::size_t count, Address* address) {
    msghdr message = {};
    message.msg_iov = reinterpret_cast<iovec*>(const_cast<IoBuffer*>(buffers));
    message.msg_iovlen = std::min(count, static_cast<std::size_t>(IOV_MAX));
    if (address != nullptr) {
        message.msg_name = address->Get();
        message.msg_namelen = address->length;
    }
    return message;
}

Transfer ToTransfer(ssize_t result) {
    Transfer transfer;
    if (result < 0) {
        transfer.error = errno;
    } else {
        transfer.bytes = static_cast<std::size_t>(result);
    }
    return transfer;
}

}  // namespace

int Create(bool v6, Kind kind, int* error) {
    const int type = kind == Kind::Stream ? SOCK_STREAM : SOCK_DGRAM;
    const int fd = socket(v6 ? AF_INET6 : AF_INET, type | SOCK_CLOEXEC, 0);
    *error = ErrorOf(fd);
    if (fd >= 0 && v6) SetOption(fd, Option::V6Only, 1);
    return fd;
}

void Close(int fd) {
    close(fd);
}

int Replace(int from, int to) {
    const int error = ErrorOf(Uninterrupted([=] { return dup3(from, to, O_CLOEXEC); }));
    close(from);
    return error;
}

int SetNonBlocking(int fd, bool nonBlocking) {
    int on = nonBlocking ? 1 : 0;
    return ErrorOf(ioctl(fd, FIONBIO, &on));
}

int Bind(int fd, const Endpoint& local) {
    Address address;
    ToKernel(local, &address);
    return ErrorOf(bind(fd, address.Get(), address.length));
}

int Listen(int fd, int backlog) {
    return ErrorOf(listen(fd, backlog));
}

int Connect(int fd, const Endpoint& peer) {
    Address address;
    ToKernel(peer, &address);
    if (connect(fd, address.Get(), address.length) == 0) return 0;
    // An interrupted connect goes on in the kernel and must not be asked for again: wait for its end.
    if (errno != EINTR) return errno;
    pollfd entry = {fd, POLLOUT, 0};
    Uninterrupted([&] { return poll(&entry, 1, -1); });
    return TakeError(fd);
}

int Unconnect(int fd) {
    sockaddr none = {};
    none.sa_family = AF_UNSPEC;
    return ErrorOf(connect(fd, &none, sizeof(none)));
}

int Accept(int fd, bool nonBlocking, Endpoint* peer, int* error) {
    Address address;
    const int flags = SOCK_CLOEXEC | (nonBlocking ? SOCK_NONBLOCK : 0);
    const int accepted = Uninterrupted([&] {
        address.length = sizeof(address.storage);
        return accept4(fd, address.Get(), &address.length, flags);
    });
    *error = ErrorOf(accepted);
    if (accepted >= 0) FromKernel(address, peer);
    return accepted;
}

int Shutdown(int fd, Direction direction) {
    const int how = direction == Direction::Receive ? SHUT_RD
                    : direction == Direction::Send  ? SHUT_WR
                                                    : SHUT_RDWR;
    return ErrorOf(shutdown(fd, how));
}

int LocalName(int fd, Endpoint* local) {
    Address address;
    const int error = ErrorOf(getsockname(fd, address.Get(), &address.length));
    if (error == 0) FromKernel(address, local);
    return error;
}

Transfer Send(int fd, const IoBuffer* buffers, std::size_t count, unsigned flags, const Endpoint* to) {
    const int kernelFlags = ToKernelFlags(flags) | MSG_NOSIGNAL;
    if (count == 1 && to == nullptr) {
        return ToTransfer(Uninterrupted([=] { return send(fd, buffers->data, buffers->size, kernelFlags); }));
    }
    Address address;
    if (to != nullptr) ToKernel(*to, &address);
    const msghdr message = MakeMessage(buffers, count, to != nullptr ? &address : nullptr);
    return ToTransfer(Uninterrupted([&] { return sendmsg(fd, &message, kernelFlags); }));
}

Transfer Receive(int fd, const IoBuffer* buffers, std::size_t count, unsigned flags, Endpoint* from) {
    const int kernelFlags = ToKernelFlags(flags);
    if (count == 1 && from == nullptr && (flags & kDatagram) == 0) {
        return ToTransfer(Uninterrupted([=] { return recv(fd, buffers->data, buffers->size, kernelFlags); }));
    }
    Address address;
    msghdr message = MakeMessage(buffers, count, from != nullptr ? &address : nullptr);
    Transfer transfer = ToTransfer(Uninterrupted([&] {
        if (from != nullptr) message.msg_namelen = sizeof(address.storage);
        return recvmsg(fd, &message, kernelFlags);
    }));
    if (transfer.error != 0) return transfer;
    transfer.truncated = (flags & kDatagram) != 0 && (message.msg_flags & MSG_TRUNC) != 0;
    if (from != nullptr) {
        address.length = message.msg_namelen;
        FromKernel(address, from);
    }
    return transfer;
}

int Poll(PollEntry* entries, std::size_t count, std::int64_t nanoseconds, int* error) {
    const timespec time = ToTimespec(std::max<std::int64_t>(nanoseconds, 0));
    const int ready =
        ppoll(reinterpret_cast<pollfd*>(entries), count, nanoseconds < 0 ? nullptr : &time, nullptr);
    if (ready < 0 && errno == EINTR) {
        for (std::size_t i = 0; i < count; ++i)
            entries[i].got = 0;
        return 0;
    }
    *error = ErrorOf(ready);
    return ready;
}

int SetOption(int fd, Option option, int value) {
    const OptionName name = NameOf(option);
    if (option == Option::DontFragment) value = value != 0 ? IP_PMTUDISC_DO : IP_PMTUDISC_DONT;
    return ErrorOf(setsockopt(fd, name.level, name.name, &value, sizeof(value)));
}

int GetOption(int fd, Option option, int* value) {
    const OptionName name = NameOf(option);
    socklen_t length = sizeof(*value);
    *value = 0;
    const int error = ErrorOf(getsockopt(fd, name.level, name.name, value, &length));
    if (option == Option::DontFragment) *value = *value == IP_PMTUDISC_DO ? 1 : 0;
    return error;
}

int TakeError(int fd) {
    int pending = 0;
    socklen_t length = sizeof(pending);
    const int error = ErrorOf(getsockopt(fd, SOL_SOCKET, SO_ERROR, &pending, &length));
    return error != 0 ? error : pending;
}

int SetLinger(int fd, bool on, int seconds) {
    linger value = {};
    value.l_onoff = on ? 1 : 0;
    value.l_linger = seconds;
    return ErrorOf(setsockopt(fd, SOL_SOCKET, SO_LINGER, &value, sizeof(value)));
}

int BytesReadable(int fd, int* bytes) {
    return ErrorOf(ioctl(fd, FIONREAD, bytes));
}

int AtMark(int fd, bool* atMark) {
    const int result = sockatmark(fd);
    *atMark = result > 0;
    return ErrorOf(result);
}

}  // namespace tcpip::kernel
