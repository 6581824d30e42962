// One thread around an edge-triggered interest list, which leaves it to a thread that waits for a completion
// packet as long as there is one: what that thread waits for then needs no change of threads. Sockets are
// named by tags that are never used twice, so an event that was fetched before a socket's end finds nobody.
// No lock is held while a socket is worked on, and calls of the platform made for it count as nobody's.
//
// A waiting thread that has got its packet is mostly back after its work, so the reactor's thread takes the
// list up again only when nobody was at it for a moment. While a thread stays at it, the reactor's sleeps.
#include "platform/tcpip/reactor.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>
#include <optional>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/guard/call_depth.h"
#include "platform/kernel/idle_work.h"
#include "platform/kernel/process_exit.h"
#include "platform/kernel/thread_hold.h"
#include "platform/tcpip/ready_list.h"
#include "platform/tcpip/socket.h"

namespace tcpip {
namespace {

class Reactor final : private platform::ClockListener, private platform::IdleWork {
  public:
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
    std::shared_ptr<Socket> Find(std::uint64_t tag);
    void RunTimers();
    void ListenWhileTimed();
    platform::Deadline NextDeadline();
    void OnClockChanged() noexcept override { ready_.Wake(); }

    void Begin() noexcept override;
    void End() noexcept override;
    void Run(platform::Deadline deadline) noexcept override;
    void Interrupt() noexcept override { ready_.Wake(); }

    void RunThread();
    bool WaitWhileOthersWork();
    void HandleEvents(std::int64_t nanoseconds);

    std::mutex lock_;  // guards the fields below; only the clock's is taken inside it
    std::unordered_map<std::uint64_t, std::weak_ptr<Socket>> sockets_;
    std::vector<Timer> timers_;
    bool listening_ = false;  // to the clock: while there are timers
    std::uint64_t lastTag_ = 0;
    std::atomic<bool> stopping_{false};  // written under lock_
    std::thread thread_;

    std::mutex sleepLock_;             // leaf, of the next two
    std::condition_variable changed_;  // to be told of a stop, or of a deep sleep's end
    bool sleepsDeep_ = false;
    std::atomic<bool> helped_{false};        // a waiting thread is at the list
    std::atomic<unsigned> helps_{0};         // how often one has taken it up
    std::atomic<bool> threadAtList_{false};  // the reactor's own thread is

    kernel::Signal yield_;     // the reactor's thread is to leave the list
    kernel::ReadyList ready_;  // opened before the thread starts, closed after it has ended
};

/// The reactor of the module, which may be unloaded without a last clean-up. At the end of the process it is
/// left as it is: threads that are held inside it would keep its destruction waiting.
class ModuleReactor {
  public:
    ModuleReactor() : reactor_() {}
    ~ModuleReactor() {
        reactor_.Stop();
        if (!platform::IsExitingThread()) reactor_.~Reactor();
    }
    ModuleReactor(const ModuleReactor&) = delete;
    ModuleReactor& operator=(const ModuleReactor&) = delete;

    Reactor* operator->() { return &reactor_; }

  private:
    union {
        Reactor reactor_;
    };
};

ModuleReactor TheReactor;

int Reactor::StartLocked() {
    if (thread_.joinable()) return 0;
    // A call that the last clean-up has overtaken: the thread that is ending still uses the list.
    if (stopping_) return ENOBUFS;
    int error = ready_.Open();
    if (error == 0) error = yield_.Open();
    if (error == 0) {
        try {
            thread_ = std::thread([this] { RunThread(); });
        } catch (const std::system_error&) {
            error = EAGAIN;
        }
    }
    if (error == 0) {
        platform::OfferIdleWork(this);
    } else {
        ready_.Close();
        yield_.Close();
    }
    return error;
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
    ListenWhileTimed();
}

/// One timed wait, whichever threads look after the list meanwhile. With lock_ held.
void Reactor::ListenWhileTimed() {
    if (listening_ == !timers_.empty()) return;
    listening_ = !listening_;
    listening_ ? Register() : Unregister();
}

void Reactor::LookAt(std::uint64_t tag, platform::Deadline deadline) {
    {
        std::lock_guard<std::mutex> guard(lock_);
        timers_.push_back({deadline, tag});
        ListenWhileTimed();
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
            ListenWhileTimed();
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

void Reactor::HandleEvents(std::int64_t nanoseconds) {
    constexpr std::size_t kBatch = 64;
    kernel::ReadyEvent events[kBatch];
    const std::size_t count = ready_.Wait(events, kBatch, nanoseconds);
    for (std::size_t i = 0; i < count; ++i) {
        if (events[i].tag == kernel::kWakeTag) continue;
        if (const std::shared_ptr<Socket> socket = Find(events[i].tag)) socket->OnReady();
    }
    RunTimers();
}

void Reactor::Begin() noexcept {
    helped_ = true;
    ++helps_;
    if (threadAtList_) yield_.Raise();
}

void Reactor::End() noexcept {
    helped_ = false;
    const std::lock_guard<std::mutex> guard(sleepLock_);
    if (sleepsDeep_) changed_.notify_all();
}

namespace {

std::int64_t TimeoutUntil(platform::Deadline deadline) {
    const std::int64_t left = platform::RealNanosecondsUntil(deadline);
    return left == platform::kNoDeadline ? -1 : left;
}

/// Makes the thread that works return when the clock is changed, so that it computes its time anew.
class ReturnOnClockChange final : private platform::ClockListener {
  public:
    explicit ReturnOnClockChange(platform::IdleWork& work) : work_(work) { Register(); }
    ~ReturnOnClockChange() override { Unregister(); }

  private:
    void OnClockChanged() noexcept override { work_.Interrupt(); }
    platform::IdleWork& work_;
};

}  // namespace

void Reactor::Run(platform::Deadline deadline) noexcept {
    std::optional<ReturnOnClockChange> listener;
    if (deadline != platform::kNoDeadline) listener.emplace(static_cast<platform::IdleWork&>(*this));
    HandleEvents(TimeoutUntil(std::min(deadline, NextDeadline())));
}

/// Sleeps while waiting threads look after the list. False when the reactor is to stop.
bool Reactor::WaitWhileOthersWork() {
    constexpr std::chrono::milliseconds kMoment{1};
    constexpr int kMomentsToDeepSleep = 100;
    std::unique_lock<std::mutex> lock(sleepLock_);
    int moments = 0;
    unsigned helps = helps_;
    while (!stopping_) {
        sleepsDeep_ = moments >= kMomentsToDeepSleep && helped_;
        if (sleepsDeep_) {
            changed_.wait(lock);
        } else {
            changed_.wait_for(lock, kMoment);
        }
        sleepsDeep_ = false;
        const bool sameAsBefore = helps == helps_;
        if (sameAsBefore && !helped_) return true;
        moments = sameAsBefore ? moments + 1 : 0;
        helps = helps_;
    }
    return false;
}

void Reactor::RunThread() {
    // What this thread calls of the platform is never a call of the layer or the application.
    platform::CurrentCallDepth().calls = 1;
    platform::LetThreadBeHeld();
    for (;;) {
        threadAtList_ = true;
        if (!helped_) {
            ready_.WaitForEvents(yield_, TimeoutUntil(NextDeadline()));
            if (!helped_) HandleEvents(0);
            // What came meanwhile to wake the thread that helps may have been taken here.
            if (helped_) ready_.Wake();
        }
        threadAtList_ = false;
        yield_.Drain();
        if (helped_ && !WaitWhileOthersWork()) break;
        std::lock_guard<std::mutex> guard(lock_);
        if (stopping_) break;
    }
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
    platform::WithdrawIdleWork();
    {
        const std::lock_guard<std::mutex> guard(sleepLock_);
        changed_.notify_all();
    }
    ready_.Wake();
    thread.join();
    ready_.Close();
    yield_.Close();
    std::lock_guard<std::mutex> guard(lock_);
    stopping_ = false;
    sockets_.clear();
    timers_.clear();
    ListenWhileTimed();
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
    return WithMemory([&] { return TheReactor->Watch(socket, fd, tag); });
}

int ReactorWatchAgain(int fd, std::uint64_t tag) noexcept {
    return TheReactor->WatchAgain(fd, tag);
}

void ReactorForget(std::uint64_t tag) noexcept {
    TheReactor->Forget(tag);
}

void ReactorLookAt(std::uint64_t tag, platform::Deadline deadline) noexcept {
    WithMemory([&] {
        TheReactor->LookAt(tag, deadline);
        return 0;
    });
}

void StopReactor() noexcept {
    TheReactor->Stop();
}

}  // namespace tcpip
