// The kernel's event descriptor and its edge-triggered interest list.
#include "platform/tcpip/ready_list.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace tcpip::kernel {
namespace {

int ErrorOf(int result) {
    return result < 0 ? errno : 0;
}

/// Rounded up: a wait that ends before its time would only be repeated.
int Milliseconds(std::int64_t nanoseconds) {
    if (nanoseconds < 0) return -1;
    return static_cast<int>(std::min<std::int64_t>((nanoseconds + 999999) / 1000000, 60000));
}

}  // namespace

int Signal::Open() {
    fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return ErrorOf(fd_);
}

void Signal::Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
}

void Signal::Raise() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(fd_, &one, sizeof(one));
}

void Signal::Drain() {
    std::uint64_t ignored;
    [[maybe_unused]] const ssize_t taken = read(fd_, &ignored, sizeof(ignored));
}

int ReadyList::Open() {
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    if (epoll_ < 0) return errno;
    int error = wake_.Open();
    if (error == 0) error = Add(wake_.fd(), kWakeTag);
    if (error != 0) Close();
    return error;
}

void ReadyList::Close() {
    wake_.Close();
    if (epoll_ >= 0) close(epoll_);
    epoll_ = -1;
}

int ReadyList::Add(int fd, std::uint64_t tag) {
    epoll_event event = {};
    // The wake-up stays ready until it is drained; sockets report each edge once.
    event.events = tag == kWakeTag ? EPOLLIN : EPOLLIN | EPOLLOUT | EPOLLPRI | EPOLLRDHUP | EPOLLET;
    event.data.u64 = tag;
    return ErrorOf(epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event));
}

void ReadyList::WaitForEvents(const Signal& signal, std::int64_t nanoseconds) {
    pollfd both[] = {{epoll_, POLLIN, 0}, {signal.fd(), POLLIN, 0}};
    poll(both, 2, Milliseconds(nanoseconds));
}

std::size_t ReadyList::Wait(ReadyEvent* events, std::size_t capacity, std::int64_t nanoseconds) {
    constexpr std::size_t kMaximum = 64;
    epoll_event found[kMaximum];
    const int count =
        epoll_wait(epoll_, found, static_cast<int>(std::min(capacity, kMaximum)), Milliseconds(nanoseconds));
    for (int i = 0; i < count; ++i) {
        events[i] = {found[i].data.u64, found[i].events};
        if (events[i].tag == kWakeTag) wake_.Drain();
    }
    return count < 0 ? 0 : static_cast<std::size_t>(count);
}

}  // namespace tcpip::kernel
