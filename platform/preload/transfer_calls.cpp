// The calls that move data on sockets and on descriptors that may be sockets.
#include <limits.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "platform/preload/engine.h"
#include "platform/preload/engine_call.h"
#include "platform/preload/real_calls.h"
#include "platform/preload/sockets.h"
#include "platform/preload/transfer.h"
#include "platform/preload/waits.h"

using preload::Address;
using preload::Noted;
using preload::Piece;
using preload::Real;
using preload::Result;
using preload::SocketRecord;
using preload::Use;

namespace {

static_assert(sizeof(Piece) == sizeof(iovec) && offsetof(Piece, size) == offsetof(iovec, iov_len));

const Piece* PiecesOf(const iovec* list) {
    return reinterpret_cast<const Piece*>(list);
}

/// The record of a descriptor of the program's whose transfers go through the engine; none when they don't.
int Layered(int fd) {
    return preload::IsInside() || preload::RunningBridge() == nullptr ? -1 : fd;
}

/// The destination of a datagram, if one is named and the engine can go there. 0 or the error.
int ReadDestination(const SocketRecord& record, const void* name, socklen_t length, Address* to) {
    const int error = preload::ReadAddress(record, static_cast<const sockaddr*>(name), length, to);
    if (error != 0) return error;
    return preload::PortOf(*to) == 0 ? EINVAL : 0;
}

ssize_t SendBytes(int fd, SocketRecord& record, const void* data, std::size_t size, int flags,
                  const Address* to) {
    const Piece piece = {const_cast<void*>(data), size};
    return preload::Send(fd, record, {&piece, 1, flags, to});
}

ssize_t ReceiveBytes(int fd, SocketRecord& record, void* data, std::size_t size, int flags, Address* from) {
    const Piece piece = {data, size};
    preload::ReceiveRequest request = {&piece, 1, flags, from};
    return preload::Receive(fd, record, &request);
}

/// A stream's empty receive asks for nothing, and a datagram's whole length only the kernel knows.
bool IsForKernel(const SocketRecord& record, int flags, std::size_t size) {
    return (record.stream && size == 0) || !preload::KnowsReceiveFlags(record, flags);
}

// ---- Messages

ssize_t SendMessage(int fd, SocketRecord& record, const msghdr& message, int flags) {
    Address to;
    const bool named = message.msg_name != nullptr && !record.stream;
    int error = named ? ReadDestination(record, message.msg_name, message.msg_namelen, &to) : 0;
    const bool staysHere = !named || error != 0 || preload::IsLoopback(to);
    // What goes beside the data, the kernel alone understands.
    const bool hasControl = message.msg_controllen != 0 && !record.stream;
    if (staysHere && (hasControl || error == EAFNOSUPPORT || !preload::KnowsSendFlags(record, flags)))
        return Real().sendmsg(fd, &message, flags);
    if (error != 0) return Result(error);
    if (message.msg_iovlen > IOV_MAX) return Result(EMSGSIZE);
    return preload::Send(fd, record,
                         {PiecesOf(message.msg_iov), message.msg_iovlen, flags, named ? &to : nullptr});
}

ssize_t ReceiveMessage(int fd, SocketRecord& record, msghdr* message, int flags) {
    const bool wantsControl = message->msg_controllen != 0 && record.keepsControl.load();
    const std::size_t size = preload::SizeOf(PiecesOf(message->msg_iov), message->msg_iovlen);
    if (wantsControl || IsForKernel(record, flags, size)) return Real().recvmsg(fd, message, flags);
    if (message->msg_iovlen > IOV_MAX) return Result(EMSGSIZE);
    Address from;
    preload::ReceiveRequest request = {PiecesOf(message->msg_iov), message->msg_iovlen, flags,
                                       message->msg_name != nullptr ? &from : nullptr};
    const ssize_t received = preload::Receive(fd, record, &request);
    if (received < 0) return received;
    message->msg_controllen = 0;
    message->msg_flags = (request.truncated ? MSG_TRUNC : 0) | (flags & (MSG_OOB | MSG_CMSG_CLOEXEC));
    if (message->msg_name == nullptr || record.stream) {
        message->msg_namelen = 0;
        return received;
    }
    const int error =
        preload::WriteAddress(from, static_cast<sockaddr*>(message->msg_name), &message->msg_namelen);
    return error != 0 ? Result(error) : received;
}

// ---- Files and pipes

constexpr std::size_t kChunk = 64 * 1024;
constexpr std::size_t kPipeChunk = PIPE_BUF;

/// Sends a range of a file, read piece by piece: the engine takes memory.
ssize_t SendFile(int out, SocketRecord& record, int in, off64_t* offset, std::size_t count) {
    char chunk[kChunk];
    std::size_t sent = 0;
    while (sent < count) {
        const std::size_t wanted = std::min(count - sent, kChunk);
        const ssize_t got =
            offset != nullptr ? pread64(in, chunk, wanted, *offset) : Real().read(in, chunk, wanted);
        if (got <= 0) return sent > 0 || got == 0 ? static_cast<ssize_t>(sent) : got;
        const ssize_t gone = SendBytes(out, record, chunk, static_cast<std::size_t>(got), 0, nullptr);
        const ssize_t taken = std::max<ssize_t>(gone, 0);
        if (offset != nullptr) {
            *offset += taken;
        } else if (taken < got) {
            const int error = errno;
            lseek64(in, taken - got, SEEK_CUR);
            errno = error;
        }
        if (gone < 0) return sent > 0 ? static_cast<ssize_t>(sent) : gone;
        sent += static_cast<std::size_t>(taken);
        if (taken < got) break;
    }
    return static_cast<ssize_t>(sent);
}

bool IsReady(int fd, short events) {
    pollfd entry = {fd, events, 0};
    return poll(&entry, 1, 0) > 0;
}

/// Moves what a pipe's smallest room takes, so that nothing is taken out that can't be put in.
ssize_t SpliceToSocket(int pipe, int fd, SocketRecord& record, std::size_t length, unsigned flags) {
    const bool waits = (flags & SPLICE_F_NONBLOCK) == 0 && !record.nonBlocking.load();
    if (!waits && !IsReady(fd, POLLOUT)) return Result(EAGAIN);
    char chunk[kPipeChunk];
    if ((flags & SPLICE_F_NONBLOCK) != 0 && !IsReady(pipe, POLLIN)) return Result(EAGAIN);
    const ssize_t got = Real().read(pipe, chunk, std::min(length, kPipeChunk));
    if (got <= 0) return got;
    std::size_t sent = 0;
    while (sent < static_cast<std::size_t>(got)) {
        const ssize_t more =
            SendBytes(fd, record, chunk + sent, static_cast<std::size_t>(got) - sent, 0, nullptr);
        if (more > 0) sent += static_cast<std::size_t>(more);
        if (more < 0 && errno == EAGAIN && preload::WaitFor(fd, POLLOUT, 0) == 0) continue;
        if (more < 0) return sent > 0 ? static_cast<ssize_t>(sent) : more;
    }
    return got;
}

ssize_t SpliceFromSocket(int fd, SocketRecord& record, int pipe, std::size_t length, unsigned flags) {
    const bool waits = (flags & SPLICE_F_NONBLOCK) == 0;
    if (!waits && !IsReady(pipe, POLLOUT)) return Result(EAGAIN);
    const int error = waits ? preload::WaitFor(pipe, POLLOUT, 0) : 0;
    if (error != 0) return Result(error);
    char chunk[kPipeChunk];
    const ssize_t got =
        ReceiveBytes(fd, record, chunk, std::min(length, kPipeChunk), waits ? 0 : MSG_DONTWAIT, nullptr);
    return got <= 0 ? got : Real().write(pipe, chunk, static_cast<std::size_t>(got));
}

/// Several messages in turn; an error behind the first one is left for the next call.
template <class One>
int OneByOne(mmsghdr* messages, unsigned count, One one) {
    unsigned done = 0;
    for (; done < count; ++done) {
        const ssize_t bytes = one(&messages[done].msg_hdr, done);
        if (bytes < 0) return done > 0 ? static_cast<int>(done) : -1;
        messages[done].msg_len = static_cast<unsigned>(bytes);
    }
    return static_cast<int>(done);
}

}  // namespace

// ---- Sending

QX_REPLACES ssize_t sendto(int fd, const void* data, size_t size, int flags, const sockaddr* name,
                           socklen_t length) {
    if (name != nullptr && length >= sizeof(sa_family_t) && preload::IsInternet(name))
        preload::AdoptInherited(fd);
    const Use use(Layered(fd));
    if (!use) return Noted(fd, Real().sendto(fd, data, size, flags, name, length));
    const iovec piece = {const_cast<void*>(data), size};
    msghdr message = {};
    message.msg_name = const_cast<sockaddr*>(name);
    message.msg_namelen = length;
    message.msg_iov = const_cast<iovec*>(&piece);
    message.msg_iovlen = 1;
    return SendMessage(fd, *use, message, flags);
}

QX_REPLACES ssize_t send(int fd, const void* data, size_t size, int flags) {
    const Use use(Layered(fd));
    if (!use || !preload::KnowsSendFlags(*use, flags)) return Noted(fd, Real().send(fd, data, size, flags));
    return SendBytes(fd, *use, data, size, flags, nullptr);
}

QX_REPLACES ssize_t sendmsg(int fd, const msghdr* message, int flags) {
    if (message != nullptr && message->msg_name != nullptr && message->msg_namelen >= sizeof(sa_family_t) &&
        preload::IsInternet(static_cast<const sockaddr*>(message->msg_name)))
        preload::AdoptInherited(fd);
    const Use use(Layered(fd));
    if (!use || message == nullptr) return Noted(fd, Real().sendmsg(fd, message, flags));
    return SendMessage(fd, *use, *message, flags);
}

QX_REPLACES int sendmmsg(int fd, mmsghdr* messages, unsigned count, int flags) {
    const Use use(Layered(fd));
    if (!use) return Real().sendmmsg(fd, messages, count, flags);
    return OneByOne(messages, std::min(count, unsigned{IOV_MAX}),
                    [&](const msghdr* message, unsigned) { return SendMessage(fd, *use, *message, flags); });
}

QX_REPLACES ssize_t write(int fd, const void* data, size_t size) {
    const Use use(Layered(fd));
    return use ? SendBytes(fd, *use, data, size, 0, nullptr) : Real().write(fd, data, size);
}

QX_REPLACES ssize_t writev(int fd, const iovec* list, int count) {
    const Use use(Layered(fd));
    if (!use || count < 0 || count > IOV_MAX) return Real().writev(fd, list, count);
    return preload::Send(fd, *use, {PiecesOf(list), static_cast<std::size_t>(count), 0, nullptr});
}

QX_REPLACES ssize_t sendfile64(int out, int in, off64_t* offset, size_t count) noexcept {
    const Use use(Layered(out));
    return use ? SendFile(out, *use, in, offset, count) : Real().sendfile(out, in, offset, count);
}

QX_REPLACES ssize_t sendfile(int out, int in, off_t* offset, size_t count) noexcept {
    return sendfile64(out, in, offset, count);
}

QX_REPLACES ssize_t splice(int in, off64_t* inOffset, int out, off64_t* outOffset, size_t length,
                           unsigned flags) {
    if (inOffset == nullptr && outOffset == nullptr) {
        if (const Use to(Layered(out)); to) return SpliceToSocket(in, out, *to.operator->(), length, flags);
        if (const Use from(Layered(in)); from)
            return SpliceFromSocket(in, *from.operator->(), out, length, flags);
    }
    return Real().splice(in, inOffset, out, outOffset, length, flags);
}

// ---- Receiving

QX_REPLACES ssize_t recvfrom(int fd, void* data, size_t size, int flags, sockaddr* name, socklen_t* length) {
    const Use use(Layered(fd));
    if (!use || IsForKernel(*use, flags, size))
        return Noted(fd, Real().recvfrom(fd, data, size, flags, name, length));
    Address from;
    const ssize_t received = ReceiveBytes(fd, *use, data, size, flags, name != nullptr ? &from : nullptr);
    if (received < 0 || name == nullptr) return received;
    if (use->stream) {
        if (length != nullptr) *length = 0;
        return received;
    }
    const int error = preload::WriteAddress(from, name, length);
    return error != 0 ? Result(error) : received;
}

QX_REPLACES ssize_t recv(int fd, void* data, size_t size, int flags) {
    const Use use(Layered(fd));
    if (!use || IsForKernel(*use, flags, size)) return Noted(fd, Real().recv(fd, data, size, flags));
    return ReceiveBytes(fd, *use, data, size, flags, nullptr);
}

QX_REPLACES ssize_t recvmsg(int fd, msghdr* message, int flags) {
    const Use use(Layered(fd));
    if (!use || message == nullptr) return Noted(fd, Real().recvmsg(fd, message, flags));
    return ReceiveMessage(fd, *use, message, flags);
}

QX_REPLACES int recvmmsg(int fd, mmsghdr* messages, unsigned count, int flags, timespec* timeout) {
    const Use use(Layered(fd));
    if (!use || timeout != nullptr) return Real().recvmmsg(fd, messages, count, flags, timeout);
    const int each = flags & ~MSG_WAITFORONE;
    return OneByOne(messages, std::min(count, unsigned{IOV_MAX}), [&](msghdr* message, unsigned done) {
        const bool isEnough = done > 0 && (flags & MSG_WAITFORONE) != 0;
        return ReceiveMessage(fd, *use, message, isEnough ? each | MSG_DONTWAIT : each);
    });
}

QX_REPLACES ssize_t read(int fd, void* data, size_t size) {
    const Use use(Layered(fd));
    if (!use || (use->stream && size == 0)) return Real().read(fd, data, size);
    return ReceiveBytes(fd, *use, data, size, 0, nullptr);
}

QX_REPLACES ssize_t readv(int fd, const iovec* list, int count) {
    const Use use(Layered(fd));
    if (!use || count < 0 || count > IOV_MAX) return Real().readv(fd, list, count);
    preload::ReceiveRequest request = {PiecesOf(list), static_cast<std::size_t>(count), 0, nullptr};
    return preload::Receive(fd, *use, &request);
}

// What the compiler calls instead when it checks the size of the buffer.

QX_REPLACES ssize_t __read_chk(int fd, void* data, size_t size, size_t room) {
    if (size > room) abort();
    return read(fd, data, size);
}

QX_REPLACES ssize_t __recv_chk(int fd, void* data, size_t size, size_t room, int flags) {
    if (size > room) abort();
    return recv(fd, data, size, flags);
}

QX_REPLACES ssize_t __recvfrom_chk(int fd, void* data, size_t size, size_t room, int flags, sockaddr* name,
                                   socklen_t* length) {
    if (size > room) abort();
    return recvfrom(fd, data, size, flags, name, length);
}
