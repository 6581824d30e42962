// The table of threads, the adopting of those that CreateThread did not make, APCs, and ends.
#include "platform/kernel/thread.h"
#include "platform/kernel/idle_work.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <new>
#include <unordered_map>
#include <vector>

#include "platform/guard/thread_guard.h"
#include "platform/kernel/fault_points.h"
#include "platform/kernel/thread_state.h"

namespace platform {

namespace {

constexpr auto kTerminationPatience = std::chrono::seconds(2);

/// All thread objects by id, and how many terminations are under way. Its lock is taken inside object locks.
struct ThreadTable {
    std::mutex mutex;
    std::unordered_map<DWORD, ThreadObject*> threads;
    int terminating = 0;
    std::vector<std::shared_ptr<ThreadObject>> lasting;  // whose threads end only with the process
    std::atomic<DWORD> nextId{0x1000};
    std::atomic<int> running{0};
};

ThreadTable& TheThreads() {
    static ThreadTable* const table = new ThreadTable;
    return *table;
}

void CountTermination(int change) {
    ThreadTable& table = TheThreads();
    const std::lock_guard<std::mutex> holder(table.mutex);
    table.terminating += change;
    if (table.terminating > 0) {
        PlatformScope::Attention.fetch_or(kTerminationAttention);
    } else {
        PlatformScope::Attention.fetch_and(~static_cast<unsigned>(kTerminationAttention));
    }
}

/// Set when the thread's own clean-up has run; it may still call.
__thread bool ThisThreadIsPastItsEnd __attribute__((tls_model("initial-exec")));

/// The identity of a thread that CreateThread did not make; ends with the thread.
class AdoptedThread {
  public:
    ~AdoptedThread() {
        ThisThreadIsPastItsEnd = true;
        if (object_ == nullptr) return;
        object_->MarkEnded(0);
        CurrentThreadState().object = nullptr;
        ReleaseThreadState();
    }

    ThreadObject& Adopt() {
        if (object_ == nullptr) object_ = MakeThreadObject(false);
        return *object_;
    }

  private:
    std::shared_ptr<ThreadObject> object_;
};

thread_local AdoptedThread TheAdoptedThread;

/// For the main thread, whose identity is still needed while modules are detached at process end, and for
/// threads that call after their clean-up.
ThreadObject& AdoptForGood() {
    auto object = MakeThreadObject(false);
    ThreadTable& table = TheThreads();
    const std::lock_guard<std::mutex> holder(table.mutex);
    table.lasting.push_back(object);
    return *object;
}

ThreadObject& AdoptCurrentThread() {
    const bool isMain = gettid() == getpid();
    return isMain || ThisThreadIsPastItsEnd ? AdoptForGood() : TheAdoptedThread.Adopt();
}

}  // namespace

void ReleaseThreadState() noexcept {
    ThreadState& state = CurrentThreadState();
    std::free(state.tls);
    state.tls = nullptr;
    ReleaseSignalStack();
}

ThreadObject::ThreadObject(bool made)
    : WaitableObject(ObjectKind::kThread),
      id_(TheThreads().nextId.fetch_add(4)),
      made_(made),
      parker_(Parker::Acquire()) {
    if (made_) ++TheThreads().running;
}

std::shared_ptr<ThreadObject> MakeThreadObject(bool made) {
    auto object = std::make_shared<ThreadObject>(made);
    ThreadTable& table = TheThreads();
    // Whoever finds it there shares it.
    const std::lock_guard<std::mutex> holder(table.mutex);
    table.threads.emplace(object->id(), object.get());
    return object;
}

ThreadObject::~ThreadObject() {
    MarkEnded(0);
    {
        ThreadTable& table = TheThreads();
        const std::lock_guard<std::mutex> holder(table.mutex);
        table.threads.erase(id_);
    }
    Parker::Release(parker_);
}

DWORD ThreadObject::ExitCode() noexcept {
    const std::lock_guard<std::mutex> holder(mutex_);
    return exitCode_;
}

bool ThreadObject::QueueApc(PAPCFUNC function, ULONG_PTR parameter) noexcept {
    const std::lock_guard<std::mutex> holder(apcMutex_);
    if (!takesApcs_) return false;
    try {
        apcs_.push_back({function, parameter});
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (alertable_ != nullptr && alertable_->Claim(WaitRecord::kApc)) parker_.Unpark();
    return true;
}

void ThreadObject::BeginAlertable(WaitRecord* record) noexcept {
    const std::lock_guard<std::mutex> holder(apcMutex_);
    alertable_ = record;
    if (!apcs_.empty()) record->Claim(WaitRecord::kApc);
}

void ThreadObject::EndAlertable() noexcept {
    const std::lock_guard<std::mutex> holder(apcMutex_);
    alertable_ = nullptr;
}

bool ThreadObject::RunApcs() noexcept {
    for (bool ran = false;; ran = true) {
        Apc apc;
        {
            const std::lock_guard<std::mutex> holder(apcMutex_);
            if (apcs_.empty()) return ran;
            apc = apcs_.front();
            apcs_.pop_front();
        }
        const ProviderBoundary boundary;
        apc.function(apc.parameter);
    }
}

void ThreadObject::Terminate(DWORD exitCode) noexcept {
    std::unique_lock<std::mutex> lock(mutex_);
    if (ended_) return;
    if (!terminated_.load()) {
        requestedExitCode_ = exitCode;
        terminated_.store(true);
        CountTermination(1);
        InterruptIdleWork();
    }
    parker_.Unpark();
    endedCondition_.wait_for(lock, kTerminationPatience, [this] { return ended_; });
}

void ThreadObject::MarkEnded(DWORD exitCode) noexcept {
    {
        const std::lock_guard<std::mutex> holder(apcMutex_);
        takesApcs_ = false;
        apcs_.clear();
    }
    const std::lock_guard<std::mutex> holder(mutex_);
    if (ended_) return;
    // Counted before anybody can see that it has ended.
    if (made_) --TheThreads().running;
    if (terminated_.load()) CountTermination(-1);
    exitCode_ = exitCode;
    ended_ = true;
    SatisfyWaiters();
    endedCondition_.notify_all();
}

ThreadObject& CurrentThread() noexcept {
    ThreadState& state = CurrentThreadState();
    if (state.object == nullptr) state.object = &AdoptCurrentThread();
    return *state.object;
}

std::shared_ptr<ThreadObject> FindThread(DWORD id) noexcept {
    ThreadTable& table = TheThreads();
    const std::lock_guard<std::mutex> holder(table.mutex);
    const auto found = table.threads.find(id);
    if (found == table.threads.end()) return nullptr;
    // Empty while the object is being destroyed.
    return std::static_pointer_cast<ThreadObject>(found->second->weak_from_this().lock());
}

int CountRunningThreads() noexcept {
    return TheThreads().running.load();
}

void MarkAllOtherThreadsEnded() noexcept {
    std::vector<std::shared_ptr<Object>> others;
    {
        ThreadTable& table = TheThreads();
        const std::lock_guard<std::mutex> holder(table.mutex);
        for (const auto& [id, thread] : table.threads) {
            if (thread == CurrentThreadState().object) continue;
            std::shared_ptr<Object> object = thread->weak_from_this().lock();
            if (object != nullptr) others.push_back(std::move(object));
        }
    }
    for (const auto& object : others)
        std::static_pointer_cast<ThreadObject>(object)->MarkEnded(0);
}

}  // namespace platform
