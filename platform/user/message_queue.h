// The messages of one thread: those posted to its windows or to itself, and those that other threads send and
// wait for. Only the owning thread takes messages and runs procedures; any thread puts messages in.
//
// Locks: a queue's lock and the table of windows' are leaves. No procedure runs and no caller's memory is
// touched with one held.
#pragma once

#include <windows.h>

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>

#include "platform/kernel/clock.h"
#include "platform/kernel/parking.h"

namespace platform {

/// Which messages a call is for, as the arguments of GetMessage say it.
struct MessageFilter {
    HWND window = nullptr;  // null: those of any window and of the thread itself
    UINT first = 0;
    UINT last = 0;  // both 0: all

    bool Fits(const MSG& message) const;
};

/// A message that another thread waits for.
struct SentMessage {
    enum State { kQueued, kAnswered, kRefused };

    MSG message{};
    Parker* sender = nullptr;
    LRESULT answer = 0;  // before kAnswered
    std::atomic<State> state{kQueued};
};

class MessageQueue {
  public:
    /// As on Windows, so many messages may wait.
    static constexpr std::size_t kMostMessages = 10000;

    /// The calling thread's; made at first need, closed when the thread ends. Throws std::bad_alloc.
    static const std::shared_ptr<MessageQueue>& OfCurrentThread();

    MessageQueue();

    DWORD threadId() const { return threadId_; }

    /// 0, ERROR_NOT_ENOUGH_QUOTA, or ERROR_INVALID_WINDOW_HANDLE when the thread has ended. Throws
    /// std::bad_alloc.
    DWORD Post(const MSG& message);

    /// Has the owning thread run the window's procedure, and waits for the answer until the deadline, while
    /// what others send to the calling thread goes on. 0 with `*answer`, or the error. A message that was not
    /// begun by then never will be. Throws std::bad_alloc.
    DWORD Send(const MSG& message, Deadline deadline, LRESULT* answer);

    /// Messages to a window that is no more are dropped.
    void ForgetWindow(HWND window);

    /// No message comes in any more; who waits for an answer gets none.
    void Close();

    // ---- For the owning thread

    void PostQuit(int exitCode);

    enum class Taken { kNone, kMessage, kQuit };

    /// Runs what was sent, then looks for a posted message.
    Taken Look(MSG* message, const MessageFilter& filter, bool remove);

    /// Looks until there is a message. kNone when the thread has been terminated.
    Taken Wait(MSG* message, const MessageFilter& filter);

  private:
    void RunSentMessages();
    void Withdraw(const std::shared_ptr<SentMessage>& sent);
    bool TakePosted(MSG* message, const MessageFilter& filter, bool remove);

    const DWORD threadId_;
    Parker& parker_;

    std::mutex lock_;  // guards the fields below
    std::deque<MSG> posted_;
    std::deque<std::shared_ptr<SentMessage>> sent_;
    bool quitPosted_ = false;
    int quitCode_ = 0;
    bool closed_ = false;
};

}  // namespace platform
