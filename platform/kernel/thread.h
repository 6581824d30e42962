// Threads: those made by CreateThread, and any other thread from the moment it first needs an identity.
//
// A thread made by CreateThread starts behind a jump buffer; ExitThread jumps back to it, so that nothing on
// the stack is destroyed, as on Windows. TerminateThread marks its target: a wait of it ends at once, and it
// jumps to its end when it enters or leaves its outermost platform call.
#pragma once

#include <atomic>
#include <condition_variable>
#include <csetjmp>
#include <deque>
#include <memory>

#include "platform/kernel/wait.h"

namespace platform {

class ThreadObject final : public WaitableObject {
  public:
    /// Only for MakeThreadObject.
    explicit ThreadObject(bool made);
    ~ThreadObject() override;

    DWORD id() const { return id_; }
    Parker& parker() { return parker_; }
    bool IsTerminated() const { return terminated_.load(std::memory_order_relaxed); }
    /// True for a thread made by CreateThread.
    bool IsMade() const { return made_; }

    DWORD ExitCode() noexcept;

    /// False when the thread has ended, or without memory.
    bool QueueApc(PAPCFUNC function, ULONG_PTR parameter) noexcept;

    /// Asks a made thread to end and waits, at most two real seconds, until it has.
    void Terminate(DWORD exitCode) noexcept;

    /// Marks the thread ended: satisfies waits for it, drops its APCs. Only the first call counts.
    void MarkEnded(DWORD exitCode) noexcept;

    // ---- For the thread itself

    /// From now on an APC claims the wait; one that is queued already claims it at once.
    void BeginAlertable(WaitRecord* record) noexcept;
    void EndAlertable() noexcept;
    /// Runs what is queued, and what that queues; false when nothing was.
    bool RunApcs() noexcept;

    jmp_buf& endBuffer() { return endBuffer_; }
    /// What ExitThread or TerminateThread was given, for the thread's own end.
    DWORD requestedExitCode() const { return requestedExitCode_; }
    void RequestExitCode(DWORD exitCode) { requestedExitCode_ = exitCode; }

  private:
    struct Apc {
        PAPCFUNC function;
        ULONG_PTR parameter;
    };
    bool IsSignaled() const noexcept override { return ended_; }

    const DWORD id_;
    const bool made_;
    Parker& parker_;
    bool ended_ = false;  // guarded by mutex_, as is exitCode_
    DWORD exitCode_ = STILL_ACTIVE;
    std::condition_variable endedCondition_;
    std::atomic<bool> terminated_{false};
    std::atomic<DWORD> requestedExitCode_{0};

    std::mutex apcMutex_;  // taken inside mutex_ or alone
    std::deque<Apc> apcs_;
    WaitRecord* alertable_ = nullptr;
    bool takesApcs_ = true;

    jmp_buf endBuffer_;
};

/// A new thread object, found by its id from now on. Throws std::bad_alloc.
std::shared_ptr<ThreadObject> MakeThreadObject(bool made);

/// The calling thread; made at first need for threads that CreateThread did not make.
ThreadObject& CurrentThread() noexcept;

/// Frees what the calling thread keeps in its state block; called when it ends.
void ReleaseThreadState() noexcept;

/// A live thread object by its id, or null.
std::shared_ptr<ThreadObject> FindThread(DWORD id) noexcept;

/// Ends the calling thread, which CreateThread made. Nothing on its stack is destroyed.
[[noreturn]] void EndCurrentThread(DWORD exitCode) noexcept;

/// Threads made by CreateThread and not ended.
int CountRunningThreads() noexcept;

/// The process ends: every other thread counts as ended from now on, as its object shows.
void MarkAllOtherThreadsEnded() noexcept;

}  // namespace platform
