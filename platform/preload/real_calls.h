// libc's own functions behind those that the preload puts in their place.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace preload {

// clang-format off
#define QX_REPLACED_CALLS(X) \
    X(socket) X(bind) X(connect) X(listen) X(accept) X(accept4) X(shutdown) X(getsockname) X(getpeername) \
    X(getsockopt) X(setsockopt) \
    X(send) X(sendto) X(sendmsg) X(sendmmsg) X(recv) X(recvfrom) X(recvmsg) X(recvmmsg) \
    X(read) X(write) X(readv) X(writev) X(sendfile) X(splice) \
    X(close) X(close_range) X(dup) X(dup2) X(dup3) X(fcntl) X(ioctl) \
    X(epoll_create1) X(eventfd) \
    X(execve) X(execvpe) X(posix_spawn) X(posix_spawnp) \
    X(pthread_create)
// clang-format on

struct RealCalls {
#define QX_FIELD(name) decltype(&::name) name;
    QX_REPLACED_CALLS(QX_FIELD)
#undef QX_FIELD
};

/// Any thread, also before this library's constructors have run.
const RealCalls& Real();

}  // namespace preload
