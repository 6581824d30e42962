#include "platform/preload/sockets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <algorithm>
#include <cstring>

#include "platform/preload/engine.h"
#include "platform/preload/engine_call.h"
#include "platform/preload/real_calls.h"

namespace preload {
namespace {

/// Above what a program numbers by itself and what fits a set of select, but low enough for small limits.
int LeastInternal() {
    constexpr rlim_t kUsual = 2048;
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
    return static_cast<int>(limit.rlim_cur > 2 * kUsual ? kUsual : limit.rlim_cur / 2);
}

}  // namespace

int KeepInternal(int descriptor) {
    if (descriptor < 0) return descriptor;
    const int error = errno;
    const int moved = Real().fcntl(descriptor, F_DUPFD_CLOEXEC, LeastInternal());
    if (moved >= 0) {
        Real().close(descriptor);
        descriptor = moved;
    }
    MarkInternal(descriptor);
    errno = error;
    return descriptor;
}

int Publish(const MadeSocket& made, bool v6, bool stream, int flags) {
    SocketRecord* const record = NewRecord();
    const int command = (flags & SOCK_CLOEXEC) != 0 ? F_DUPFD_CLOEXEC : F_DUPFD;
    const int descriptor = record != nullptr ? Real().fcntl(made.descriptor, command, 0) : -1;
    if (descriptor < 0) {
        const int error = record != nullptr ? errno : ENOMEM;
        if (record != nullptr) {
            record->socket = made.socket;
            Release(record);
        } else {
            CloseWinsockSocket(made.socket);
        }
        return Result(error);
    }
    record->socket = made.socket;
    record->lowerDescriptor = made.descriptor;
    record->v6 = v6;
    record->stream = stream;
    if ((flags & SOCK_NONBLOCK) != 0) {
        record->nonBlocking.store(true);
        SetKernelMode(descriptor, true);
    }
    Enter(descriptor, record);
    return descriptor;
}

namespace {

bool IsConnected(int descriptor) {
    sockaddr_storage peer;
    socklen_t length = sizeof(peer);
    return Real().getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &length) == 0;
}

int OptionOf(int descriptor, int name) {
    int value = -1;
    socklen_t length = sizeof(value);
    return Real().getsockopt(descriptor, SOL_SOCKET, name, &value, &length) == 0 ? value : -1;
}

std::int64_t TimeoutOf(int descriptor, int name) {
    timeval time = {};
    socklen_t length = sizeof(time);
    Real().getsockopt(descriptor, SOL_SOCKET, name, &time, &length);
    return time.tv_sec * std::int64_t{1'000'000'000} + time.tv_usec * 1000;
}

/// The kind of an inherited socket is TCP's or UDP's.
bool IsInherited(int descriptor, bool* v6, bool* stream) {
    const int domain = OptionOf(descriptor, SO_DOMAIN);
    const int protocol = OptionOf(descriptor, SO_PROTOCOL);
    *v6 = domain == AF_INET6;
    *stream = protocol == IPPROTO_TCP;
    return (domain == AF_INET || *v6) && (*stream || protocol == IPPROTO_UDP) && !IsConnected(descriptor);
}

int MakeOn(const Bridge& bridge, int descriptor, bool v6, bool stream, MadeSocket* made) {
    const EngineCall call(-1, Signals::HeldBack);
    const int error = bridge.make(v6, stream, made);
    if (error != 0) return error;
    const int duplicate = Real().fcntl(descriptor, F_DUPFD_CLOEXEC, LeastInternal());
    const int adopted = duplicate >= 0 ? bridge.adopt(made->socket, duplicate) : EMFILE;
    if (adopted != 0) bridge.close(made->socket);
    return adopted;
}

}  // namespace

void AdoptInherited(int descriptor) {
    static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    bool v6 = false;
    bool stream = false;
    const int before = errno;
    if (IsInside() || IsKnown(descriptor) || !IsInherited(descriptor, &v6, &stream)) {
        errno = before;
        return;
    }
    pthread_mutex_lock(&lock);
    const Bridge* const bridge = IsKnown(descriptor) ? nullptr : TheBridge();
    MadeSocket made;
    SocketRecord* const record = bridge != nullptr ? NewRecord() : nullptr;
    if (record != nullptr && MakeOn(*bridge, descriptor, v6, stream, &made) == 0) {
        record->socket = made.socket;
        record->lowerDescriptor = made.descriptor;
        record->v6 = v6;
        record->stream = stream;
        record->nonBlocking.store((Real().fcntl(descriptor, F_GETFL) & O_NONBLOCK) != 0);
        record->receiveTimeout.store(TimeoutOf(descriptor, SO_RCVTIMEO));
        record->sendTimeout.store(TimeoutOf(descriptor, SO_SNDTIMEO));
        Enter(descriptor, record);
    }
    pthread_mutex_unlock(&lock);
    errno = before;
}

int ReadAddress(const SocketRecord& record, const sockaddr* name, socklen_t length, Address* address) {
    if (name == nullptr) return EFAULT;
    const unsigned family = record.v6 ? AF_INET6 : AF_INET;
    // An IPv6 address may come without its scope, as it did in former times.
    const std::size_t least = record.v6 ? offsetof(sockaddr_in6, sin6_scope_id) : sizeof(sockaddr_in);
    const std::size_t whole = record.v6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    if (length < sizeof(sa_family_t)) return EINVAL;
    if (name->sa_family != family) return EAFNOSUPPORT;
    if (length < least) return EINVAL;
    std::memset(address->bytes, 0, whole);
    std::memcpy(address->bytes, name, std::min<std::size_t>(length, whole));
    address->length = static_cast<unsigned>(whole);
    return 0;
}

int WriteAddress(const Address& address, sockaddr* name, socklen_t* length) {
    if (name == nullptr) return 0;
    if (length == nullptr) return EFAULT;
    if (static_cast<int>(*length) < 0) return EINVAL;
    std::memcpy(name, address.bytes, std::min(*length, address.length));
    *length = address.length;
    return 0;
}

unsigned short FamilyOf(const Address& address) {
    sa_family_t family;
    std::memcpy(&family, address.bytes, sizeof(family));
    return family;
}

unsigned short PortOf(const Address& address) {
    // At the same place in both families.
    in_port_t port;
    std::memcpy(&port, address.bytes + offsetof(sockaddr_in, sin_port), sizeof(port));
    return ntohs(port);
}

bool IsLoopback(const Address& address) {
    if (FamilyOf(address) == AF_INET) return address.bytes[offsetof(sockaddr_in, sin_addr)] == IN_LOOPBACKNET;
    in6_addr v6;
    std::memcpy(&v6, address.bytes + offsetof(sockaddr_in6, sin6_addr), sizeof(v6));
    return IN6_IS_ADDR_LOOPBACK(&v6) || (IN6_IS_ADDR_V4MAPPED(&v6) && v6.s6_addr[12] == IN_LOOPBACKNET);
}

void SetKernelMode(int descriptor, bool nonBlocking) {
    const int error = errno;
    const int flags = Real().fcntl(descriptor, F_GETFL);
    const int wanted = nonBlocking ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
    if (flags >= 0 && wanted != flags) Real().fcntl(descriptor, F_SETFL, wanted);
    errno = error;
}

}  // namespace preload
