// One wait of a thread: linked to its objects, asleep, unlinked.
#include "platform/kernel/wait.h"

#include <algorithm>
#include <array>

#include "platform/kernel/thread.h"

namespace platform {

void WaitableObject::Link(WaitBlock* block) noexcept {
    block->next = nullptr;
    block->previous = lastWaiter_;
    (lastWaiter_ != nullptr ? lastWaiter_->next : firstWaiter_) = block;
    lastWaiter_ = block;
    block->linked = true;
}

void WaitableObject::Unlink(WaitBlock* block) noexcept {
    if (!block->linked) return;
    (block->previous != nullptr ? block->previous->next : firstWaiter_) = block->next;
    (block->next != nullptr ? block->next->previous : lastWaiter_) = block->previous;
    block->linked = false;
}

void WaitableObject::SatisfyWaiters() noexcept {
    for (WaitBlock* block = firstWaiter_; block != nullptr && IsSignaled();) {
        WaitBlock* next = block->next;
        WaitRecord* record = block->record;
        if (record->waitAll) {
            record->parker->Unpark();
        } else if (record->Claim(block->index)) {
            Consume();
            Unlink(block);
            // The record lives on at least until its thread gets this object's lock.
            record->parker->Unpark();
        }
        block = next;
    }
}

/// The objects of one wait, with the operations that need several of them.
class ObjectWait {
  public:
    ObjectWait(WaitableObject* const* objects, DWORD count, bool waitAll, ThreadObject& thread)
        : objects_(objects), count_(count), thread_(thread) {
        record_.parker = &thread.parker();
        record_.waitAll = waitAll && count > 1;
    }

    WaitOutcome Run(DWORD milliseconds, bool alertable) noexcept;

  private:
    bool TryAny() noexcept;
    void TryAll() noexcept;
    void LinkAll() noexcept;
    void UnlinkAll() noexcept;
    void Sleep(DWORD milliseconds) noexcept;
    WaitOutcome Outcome() const noexcept;

    WaitableObject* const* const objects_;
    const DWORD count_;
    ThreadObject& thread_;
    WaitRecord record_;
    std::array<WaitBlock, MAXIMUM_WAIT_OBJECTS> blocks_;  // the first blockCount_ are set
    DWORD blockCount_ = 0;
};

/// A look without sleeping: true when the wait is satisfied.
bool ObjectWait::TryAny() noexcept {
    for (DWORD i = 0; i < count_; ++i) {
        const std::lock_guard<std::mutex> holder(objects_[i]->mutex_);
        if (!objects_[i]->IsSignaled()) continue;
        objects_[i]->Consume();
        record_.Claim(static_cast<int>(i));
        return true;
    }
    return false;
}

void ObjectWait::TryAll() noexcept {
    std::array<WaitableObject*, MAXIMUM_WAIT_OBJECTS> ordered;
    std::copy_n(objects_, count_, ordered.begin());
    std::sort(ordered.begin(), ordered.begin() + count_, std::less<>());
    for (DWORD i = 0; i < count_; ++i)
        ordered[i]->mutex_.lock();
    const bool all = std::all_of(ordered.begin(), ordered.begin() + count_,
                                 [](const WaitableObject* object) { return object->IsSignaled(); });
    if (all && record_.Claim(0)) {
        for (DWORD i = 0; i < count_; ++i)
            ordered[i]->Consume();
    }
    for (DWORD i = count_; i-- > 0;)
        ordered[i]->mutex_.unlock();
}

/// Stands in line at every object; one that is signalled already satisfies a wait for any on the way.
void ObjectWait::LinkAll() noexcept {
    for (DWORD i = 0; i < count_ && record_.IsPending(); ++i) {
        const std::lock_guard<std::mutex> holder(objects_[i]->mutex_);
        blocks_[i] = {&record_, static_cast<int>(i), nullptr, nullptr, false};
        ++blockCount_;
        if (!record_.waitAll && objects_[i]->IsSignaled()) {
            if (record_.Claim(static_cast<int>(i))) objects_[i]->Consume();
            return;
        }
        objects_[i]->Link(&blocks_[i]);
    }
}

/// Also waits for whoever is just satisfying this wait: it holds the object's lock while it uses the record.
void ObjectWait::UnlinkAll() noexcept {
    for (DWORD i = 0; i < blockCount_; ++i) {
        const std::lock_guard<std::mutex> holder(objects_[i]->mutex_);
        objects_[i]->Unlink(&blocks_[i]);
    }
}

void ObjectWait::Sleep(DWORD milliseconds) noexcept {
    const Deadline deadline = DeadlineAfter(milliseconds);
    while (record_.IsPending()) {
        if (thread_.IsTerminated()) {
            record_.Claim(WaitRecord::kTerminated);
            break;
        }
        if (record_.waitAll) {
            TryAll();
            if (!record_.IsPending()) break;
        }
        if (!record_.parker->ParkUntil(deadline)) {
            // What happened at the last moment still counts.
            if (record_.waitAll) TryAll();
            record_.Claim(WaitRecord::kTimeout);
        }
    }
}

WaitOutcome ObjectWait::Outcome() const noexcept {
    switch (const int outcome = record_.outcome.load()) {
        case WaitRecord::kApc:
            return {WaitResult::kApc, 0};
        case WaitRecord::kTimeout:
            return {WaitResult::kTimeout, 0};
        case WaitRecord::kTerminated:
            return {WaitResult::kTerminated, 0};
        default:
            return {WaitResult::kObject, static_cast<DWORD>(outcome)};
    }
}

WaitOutcome ObjectWait::Run(DWORD milliseconds, bool alertable) noexcept {
    if (record_.waitAll) {
        TryAll();
    } else {
        TryAny();
    }
    // A wait that is satisfied at once leaves the APCs queued.
    if (!record_.IsPending()) return Outcome();
    if (milliseconds == 0) {
        return {alertable && thread_.RunApcs() ? WaitResult::kApc : WaitResult::kTimeout, 0};
    }
    LinkAll();
    if (alertable) thread_.BeginAlertable(&record_);
    Sleep(milliseconds);
    if (alertable) thread_.EndAlertable();
    UnlinkAll();
    const WaitOutcome outcome = Outcome();
    if (outcome.result == WaitResult::kApc) thread_.RunApcs();
    return outcome;
}

WaitOutcome WaitForObjects(WaitableObject* const* objects, DWORD count, bool waitAll, DWORD milliseconds,
                           bool alertable) noexcept {
    return ObjectWait(objects, count, waitAll, CurrentThread()).Run(milliseconds, alertable);
}

void SleepOnClock(DWORD milliseconds) noexcept {
    WaitForObjects(nullptr, 0, false, milliseconds, false);
}

}  // namespace platform
