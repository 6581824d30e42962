// A waker is one descriptor and one listener to the clock. It belongs to one wait at a time, so the pool
// holds as many as threads once waited together.
#include "platform/tcpip/timed_wait.h"

#include <winsock2.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <new>

#include "platform/tcpip/error_table.h"
#include "platform/tcpip/ready_list.h"

namespace tcpip {
namespace {

/// Makes a descriptor readable when the clock changes.
class Waker final : public platform::ClockListener {
  public:
    int Open() { return signal_.Open(); }
    int fd() const { return signal_.fd(); }
    void Drain() { signal_.Drain(); }
    void OnClockChanged() noexcept override {
        changed_.store(true, std::memory_order_relaxed);
        signal_.Raise();
    }

    /// Whether the clock has changed since the last call; nothing is to be drained when it has not.
    bool TakeChanged() { return changed_.exchange(false, std::memory_order_relaxed); }

    std::unique_ptr<Waker> next;

  private:
    kernel::Signal signal_;
    std::atomic<bool> changed_{false};
};

std::mutex Lock;                    // leaf; guards Wakers
std::unique_ptr<Waker> FreeWakers;  // a stack

std::unique_ptr<Waker> TakeWaker(int* error) {
    std::unique_ptr<Waker> waker;
    {
        std::lock_guard<std::mutex> guard(Lock);
        if (FreeWakers != nullptr) {
            waker = std::move(FreeWakers);
            FreeWakers = std::move(waker->next);
            return waker;
        }
    }
    waker.reset(new Waker);
    *error = waker->Open();
    if (*error != 0) waker.reset();
    return waker;
}

void GiveBack(std::unique_ptr<Waker> waker) {
    std::lock_guard<std::mutex> guard(Lock);
    waker->next = std::move(FreeWakers);
    FreeWakers = std::move(waker);
}

}  // namespace

int PollUntil(kernel::PollEntry* entries, std::size_t count, platform::Deadline deadline, int* error) {
    *error = 0;
    if (deadline == platform::kNoDeadline) {
        for (;;) {
            const int ready = kernel::Poll(entries, count, -1, error);
            if (ready != 0) return ready;
        }
    }
    if (platform::HasPassed(deadline)) return kernel::Poll(entries, count, 0, error);
    std::unique_ptr<Waker> waker = TakeWaker(error);
    if (waker == nullptr) return -1;
    kernel::PollEntry& wakeEntry = entries[count];
    wakeEntry = {waker->fd(), static_cast<short>(kernel::kReadable), 0};
    waker->Register();
    int ready;
    for (;;) {
        const std::int64_t left = platform::RealNanosecondsUntil(deadline);
        ready = kernel::Poll(entries, count + 1, left == platform::kNoDeadline ? -1 : left, error);
        if (ready < 0) break;
        if (wakeEntry.got != 0) {
            waker->Drain();
            --ready;
        }
        if (ready > 0 || platform::HasPassed(deadline)) break;
    }
    waker->Unregister();
    // A change between the last poll and here left its mark, which the next wait must not find.
    if (waker->TakeChanged()) waker->Drain();
    GiveBack(std::move(waker));
    return ready;
}

int WaitReady(int fd, unsigned events, platform::Deadline deadline) {
    kernel::PollEntry entries[1 + kPollSpare] = {{fd, static_cast<short>(events), 0}, {}};
    int error = 0;
    const int ready = PollUntil(entries, 1, deadline, &error);
    if (ready < 0) return WinsockErrorFromErrno(error);
    return ready == 0 ? WSAETIMEDOUT : 0;
}

void CloseWakers() {
    std::lock_guard<std::mutex> guard(Lock);
    while (FreeWakers != nullptr)
        FreeWakers = std::move(FreeWakers->next);
}

}  // namespace tcpip
