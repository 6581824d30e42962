// See idle_work.h.
#include "platform/kernel/idle_work.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace platform {
namespace {

std::mutex OfferLock;  // guards what follows; Begin and End are called with it held
std::condition_variable Left;
std::atomic<IdleWork*> Offered{nullptr};
bool InUse = false;
std::atomic<int> Interrupting{0};  // threads that may be using what was offered, without the lock

}  // namespace

void OfferIdleWork(IdleWork* work) noexcept {
    const std::lock_guard<std::mutex> guard(OfferLock);
    Offered = work;
}

void WithdrawIdleWork() noexcept {
    std::unique_lock<std::mutex> lock(OfferLock);
    IdleWork* const work = Offered.exchange(nullptr);
    if (work == nullptr) return;
    while (InUse) {
        work->Interrupt();
        Left.wait(lock);
    }
    while (Interrupting != 0)
        std::this_thread::yield();
}

void InterruptIdleWork() noexcept {
    ++Interrupting;
    if (IdleWork* const work = Offered; work != nullptr) work->Interrupt();
    --Interrupting;
}

IdleWorkUse::IdleWorkUse() noexcept : work_(nullptr) {
    if (Offered.load(std::memory_order_relaxed) == nullptr) return;
    const std::lock_guard<std::mutex> guard(OfferLock);
    if (InUse) return;
    work_ = Offered;
    if (work_ == nullptr) return;
    InUse = true;
    work_->Begin();
}

IdleWorkUse::~IdleWorkUse() {
    if (work_ == nullptr) return;
    const std::lock_guard<std::mutex> guard(OfferLock);
    work_->End();
    InUse = false;
    // With the lock held: who withdrew it may unload it at once.
    Left.notify_all();
}

bool IdleWorkUse::IsOffered() const noexcept {
    return Offered.load() == work_;
}

}  // namespace platform
