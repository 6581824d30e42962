#include "platform/preload/sockets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>

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
