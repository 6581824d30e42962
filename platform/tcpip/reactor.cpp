// One thread around an edge-triggered interest list. Sockets are named by tags that are never used twice, so
// an event that was fetched before a socket's end finds nobody. The thread holds no lock while it works on a
// socket, and calls of the platform made by it count as nobody's.
#include "platform/tcpip/reactor.h"

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/guard/call_depth.h"
#include "platform/kernel/process_exit.h"
#include "platform/kernel/thread_hold.h"
#include "platform/tcpip/ready_list.h"
#include "platform/tcpip/socket.h"

namespace tcpip {
namespace {

class Reactor final : private platform::ClockListener {
  public:
    /// A process may end without the last clean-up, or with the module still loaded after a failed one.
    ~Reactor() override { Stop(); }

    int Watch(const std::shared_ptr<Socket>& socket, int fd, std::uint64_t* tag);
    int WatchAgain(int fd, std::uint64_t tag) { return ready_.Add(fd, tag); }
    void Forget(std::uint64_t tag);
    void LookAt(std::uint64_t tag, platform::Deadline deadline);
    void Stop();

  private:
    struct Timer {
        platform::Deadline deadline;
        std::uint64_t tag;
    };

    int StartLocked();
    void Run();
    std::shared_ptr<Socket> Find(std::uint64_t tag);
    void RunTimers();
    platform::Deadline NextDeadline();
    void OnClockChanged() noexcept override { ready_.Wake(); }

    std::mutex lock_;  // leaf; guards the fields below
    std::unordered_map<std::uint64_t, std::weak_ptr<Socket>> sockets_;
    std::vector<Timer> timers_;
    std::uint64_t lastTag_ = 0;
    bool stopping_ = false;
    std::thread thread_;

    kernel::ReadyList ready_;  // opened before the thread starts, closed after it has ended
};

Reactor TheReactor;

int Reactor::StartLocked() {
    if (thread_.joinable()) return 0;
    // A call that the last clean-up has overtaken: the thread that is ending still uses the list.
    if (stopping_) return ENOBUFS;
    const int error = ready_.Open();
    if (error != 0) return error;
    try {
        thread_ = std::thread([this] { Run(); });
    } catch (const std::system_error&) {
        ready_.Close();
        return EAGAIN;
    }
    return 0;
}

int Reactor::Watch(const std::shared_ptr<Socket>& socket, int fd, std::uint64_t* tag) {
    std::uint64_t newTag;
    {
        std::lock_guard<std::mutex> guard(lock_);
        const int error = StartLocked();
        if (error != 0) return error;
        newTag = ++lastTag_;
        sockets_.emplace(newTag, socket);
    }
    const int error = ready_.Add(fd, newTag);
    if (error != 0) {
        Forget(newTag);
        return error;
    }
    *tag = newTag;
    return 0;
}

void Reactor::Forget(std::uint64_t tag) {
    std::lock_guard<std::mutex> guard(lock_);
    sockets_.erase(tag);
    timers_.erase(std::remove_if(timers_.begin(), timers_.end(),
                                 [tag](const Timer& timer) { return timer.tag == tag; }),
                  timers_.end());
}

void Reactor::LookAt(std::uint64_t tag, platform::Deadline deadline) {
    {
        std::lock_guard<std::mutex> guard(lock_);
        timers_.push_back({deadline, tag});
    }
    ready_.Wake();
}

std::shared_ptr<Socket> Reactor::Find(std::uint64_t tag) {
    std::lock_guard<std::mutex> guard(lock_);
    const auto found = sockets_.find(tag);
    return found == sockets_.end() ? nullptr : found->second.lock();
}

void Reactor::RunTimers() {
    for (;;) {
        std::uint64_t tag = 0;
        {
            std::lock_guard<std::mutex> guard(lock_);
            const auto due = std::find_if(timers_.begin(), timers_.end(), [](const Timer& timer) {
                return platform::HasPassed(timer.deadline);
            });
            if (due == timers_.end()) return;
            tag = due->tag;
            timers_.erase(due);
        }
        if (const std::shared_ptr<Socket> socket = Find(tag)) socket->OnReady();
    }
}

platform::Deadline Reactor::NextDeadline() {
    std::lock_guard<std::mutex> guard(lock_);
    platform::Deadline next = platform::kNoDeadline;
    for (const Timer& timer : timers_)
        next = std::min(next, timer.deadline);
    return next;
}

void Reactor::Run() {
    // What this thread calls of the platform is never a call of the layer or the application.
    platform::CurrentCallDepth().calls = 1;
    platform::LetThreadBeHeld();
    constexpr std::size_t kBatch = 64;
    kernel::ReadyEvent events[kBatch];
    bool listening = false;  // to the clock; only while some socket has a deadline
    for (;;) {
        const platform::Deadline deadline = NextDeadline();
        if ((deadline != platform::kNoDeadline) != listening) {
            listening = !listening;
            listening ? Register() : Unregister();
        }
        const std::int64_t left = platform::RealNanosecondsUntil(deadline);
        const std::size_t count = ready_.Wait(events, kBatch, left == platform::kNoDeadline ? -1 : left);
        for (std::size_t i = 0; i < count; ++i) {
            if (events[i].tag == kernel::kWakeTag) continue;
            if (const std::shared_ptr<Socket> socket = Find(events[i].tag)) socket->OnReady();
        }
        RunTimers();
        std::lock_guard<std::mutex> guard(lock_);
        if (stopping_) break;
    }
    if (listening) Unregister();
}

void Reactor::Stop() {
    std::thread thread;
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (!thread_.joinable()) return;
        stopping_ = true;
        thread = std::move(thread_);
    }
    // At the end of the process the thread is held, and stays so.
    if (platform::IsExitingThread()) {
        thread.detach();
        return;
    }
    ready_.Wake();
    thread.join();
    ready_.Close();
    std::lock_guard<std::mutex> guard(lock_);
    stopping_ = false;
    sockets_.clear();
    timers_.clear();
}

/// Runs something that may throw for want of memory.
template <class Body>
int WithMemory(Body body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

}  // namespace

int ReactorWatch(const std::shared_ptr<Socket>& socket, int fd, std::uint64_t* tag) noexcept {
    return WithMemory([&] { return TheReactor.Watch(socket, fd, tag); });
}

int ReactorWatchAgain(int fd, std::uint64_t tag) noexcept {
    return TheReactor.WatchAgain(fd, tag);
}

void ReactorForget(std::uint64_t tag) noexcept {
    TheReactor.Forget(tag);
}

void ReactorLookAt(std::uint64_t tag, platform::Deadline deadline) noexcept {
    WithMemory([&] {
        TheReactor.LookAt(tag, deadline);
        return 0;
    });
}

void StopReactor() noexcept {
    TheReactor.Stop();
}

}  // namespace tcpip
