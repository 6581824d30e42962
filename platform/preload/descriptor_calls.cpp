// The calls that open, close, copy and set up descriptors of any kind.
#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>

#include "platform/preload/engine_call.h"
#include "platform/preload/real_calls.h"
#include "platform/preload/sockets.h"

using preload::Real;
using preload::Result;
using preload::SocketRecord;
using preload::Use;

namespace {

/// The Winsock socket goes when its last descriptor does; what the kernel said of the close counts.
int CloseAndRelease(int fd) {
    SocketRecord* const record = preload::Leave(fd);
    const int result = Real().close(fd);
    if (record == nullptr) return result;
    const int error = errno;
    preload::Release(record);
    errno = error;
    return result;
}

/// `to` stands for what `from` does.
int Copied(Use* from, int to) {
    if (to >= 0 && *from) preload::Enter(to, from->Keep());
    return to;
}

int CopyTo(int from, int to, int (*copy)(int from, int to, int flags), int flags) {
    if (preload::IsInternal(to)) return Result(EBADF);
    Use use(from);
    SocketRecord* const replaced = preload::Leave(to);
    const int result = copy(from, to, flags);
    if (result < 0) {
        if (replaced != nullptr) preload::Enter(to, replaced);
        return result;
    }
    Copied(&use, to);
    if (replaced != nullptr) preload::Release(replaced);
    return result;
}

/// Closes a range, but for the layer's own descriptors.
int CloseBetween(unsigned first, unsigned last, int flags) {
    const auto known = static_cast<unsigned>(preload::HighestKnown() + 1);
    unsigned begin = first;
    for (unsigned fd = first; fd < known && fd <= last; ++fd) {
        if (!preload::IsInternal(static_cast<int>(fd))) {
            if (SocketRecord* const record = preload::Leave(static_cast<int>(fd))) {
                Real().close(static_cast<int>(fd));
                preload::Release(record);
            }
            continue;
        }
        if (fd > begin) Real().close_range(begin, fd - 1, flags);
        begin = fd + 1;
    }
    return begin > last ? 0 : Real().close_range(begin, last, flags);
}

void SetBlocking(int fd, bool nonBlocking) {
    const Use use(fd);
    if (use) use->nonBlocking.store(nonBlocking);
}

int Control(int fd, int command, long argument) {
    if (preload::IsInside()) return Real().fcntl(fd, command, argument);
    switch (command) {
        case F_DUPFD:
        case F_DUPFD_CLOEXEC: {
            Use use(fd);
            return Copied(&use, Real().fcntl(fd, command, argument));
        }
        case F_SETFL: {
            const int result = Real().fcntl(fd, command, argument);
            if (result == 0) SetBlocking(fd, (argument & O_NONBLOCK) != 0);
            return result;
        }
        case F_GETFL: {
            // The kernel's mode may be another one while a call is under way on another thread.
            const int flags = Real().fcntl(fd, command, argument);
            const Use use(fd);
            if (flags < 0 || !use) return flags;
            return use->nonBlocking.load() ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
        }
        default:
            return Real().fcntl(fd, command, argument);
    }
}

}  // namespace

QX_REPLACES int close(int fd) {
    if (!preload::IsInside()) return preload::IsInternal(fd) ? Result(EBADF) : CloseAndRelease(fd);
    preload::UnmarkInternal(fd);
    return CloseAndRelease(fd);
}

QX_REPLACES int close_range(unsigned first, unsigned last, int flags) noexcept {
    if (preload::IsInside() || first > last || (flags & CLOSE_RANGE_CLOEXEC) != 0)
        return Real().close_range(first, last, flags);
    return CloseBetween(first, last, flags);
}

QX_REPLACES void closefrom(int first) noexcept {
    close_range(static_cast<unsigned>(std::max(first, 0)), ~0U, 0);
}

QX_REPLACES int dup(int fd) noexcept {
    Use use(preload::IsInside() ? -1 : fd);
    return Copied(&use, Real().dup(fd));
}

QX_REPLACES int dup2(int from, int to) noexcept {
    if (preload::IsInside() || from == to) return Real().dup2(from, to);
    return CopyTo(
        from, to, [](int a, int b, int) { return Real().dup2(a, b); }, 0);
}

QX_REPLACES int dup3(int from, int to, int flags) noexcept {
    if (preload::IsInside() || from == to) return Real().dup3(from, to, flags);
    return CopyTo(
        from, to, [](int a, int b, int f) { return Real().dup3(a, b, f); }, flags);
}

QX_REPLACES int fcntl64(int fd, int command, ...) {
    va_list list;
    va_start(list, command);
    const long argument = va_arg(list, long);
    va_end(list);
    return Control(fd, command, argument);
}

QX_REPLACES int fcntl(int fd, int command, ...) {
    va_list list;
    va_start(list, command);
    const long argument = va_arg(list, long);
    va_end(list);
    return Control(fd, command, argument);
}

QX_REPLACES int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list list;
    va_start(list, request);
    void* const argument = va_arg(list, void*);
    va_end(list);
    const int result = Real().ioctl(fd, request, argument);
    if (request == FIONBIO && result == 0 && !preload::IsInside())
        SetBlocking(fd, *static_cast<const int*>(argument) != 0);
    return result;
}

// The layer's own descriptors are told from the program's where they are made.

QX_REPLACES int epoll_create1(int flags) noexcept {
    const int fd = Real().epoll_create1(flags);
    return preload::IsInside() ? preload::KeepInternal(fd) : fd;
}

QX_REPLACES int eventfd(unsigned value, int flags) noexcept {
    const int fd = Real().eventfd(value, flags);
    return preload::IsInside() ? preload::KeepInternal(fd) : fd;
}
