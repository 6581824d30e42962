// The seam to the kernel's waiting: waking a thread that polls, and the reactor's interest list. As in
// kernel_socket.h, failures are errno values.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tcpip::kernel {

/// A descriptor that is readable from a Raise, by any thread, to the next Drain.
class Signal {
  public:
    Signal() = default;
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;
    ~Signal() { Close(); }

    int Open();
    void Close();
    int fd() const { return fd_; }
    void Raise();
    void Drain();

  private:
    int fd_ = -1;
};

constexpr std::uint64_t kWakeTag = ~std::uint64_t{0};

struct ReadyEvent {
    std::uint64_t tag;
    unsigned events;
};

/// An edge-triggered interest list with a way to wake its waiter. Not copyable; any thread may call Add and
/// Wake.
class ReadyList {
  public:
    ReadyList() = default;
    ReadyList(const ReadyList&) = delete;
    ReadyList& operator=(const ReadyList&) = delete;
    ~ReadyList() { Close(); }

    /// On failure nothing is left open.
    int Open();
    void Close();

    /// Every readiness of `fd` is reported with `tag`, beginning with the present one. Ends when the fd is
    /// closed.
    int Add(int fd, std::uint64_t tag);
    void Wake() { wake_.Raise(); }

    /// Waits; the number of events stored. The wake-up is reported as `kWakeTag`.
    std::size_t Wait(ReadyEvent* events, std::size_t capacity, std::int64_t nanoseconds);

    /// Waits until there are events, without taking any; also until `signal` is raised.
    void WaitForEvents(const Signal& signal, std::int64_t nanoseconds);

  private:
    int epoll_ = -1;
    Signal wake_;
};

}  // namespace tcpip::kernel
