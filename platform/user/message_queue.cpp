// See message_queue.h.
#include "platform/user/message_queue.h"

#include <algorithm>
#include <utility>

#include "platform/user/window.h"

namespace platform {

namespace {

/// Ends the queue, and the windows, of a thread that ends.
class ThreadQueue {
  public:
    ~ThreadQueue() {
        if (queue_ == nullptr) return;
        DropWindowsOf(*queue_);
        queue_->Close();
    }
    const std::shared_ptr<MessageQueue>& Get() {
        if (queue_ == nullptr) queue_ = std::make_shared<MessageQueue>();
        return queue_;
    }

  private:
    std::shared_ptr<MessageQueue> queue_;
};

thread_local ThreadQueue TheThreadQueue;

bool IsDone(const SentMessage& sent) {
    const SentMessage::State state = sent.state.load(std::memory_order_acquire);
    return state == SentMessage::kAnswered || state == SentMessage::kRefused;
}

/// The parker stays for ever, whether the sender still waits or not.
void EndSent(SentMessage* sent, SentMessage::State state) {
    Parker* const sender = sent->sender;
    sent->state.store(state, std::memory_order_release);
    sender->Unpark();
}

}  // namespace

bool MessageFilter::Fits(const MSG& message) const {
    if (window == reinterpret_cast<HWND>(static_cast<INT_PTR>(-1))) {
        if (message.hwnd != nullptr) return false;
    } else if (window != nullptr && message.hwnd != window) {
        return false;
    }
    return (first == 0 && last == 0) || (message.message >= first && message.message <= last);
}

const std::shared_ptr<MessageQueue>& MessageQueue::OfCurrentThread() {
    return TheThreadQueue.Get();
}

MessageQueue::MessageQueue() : threadId_(GetCurrentThreadId()), parker_(CurrentParker()) {}

DWORD MessageQueue::Post(const MSG& message) {
    {
        const std::lock_guard<std::mutex> holder(lock_);
        if (closed_) return ERROR_INVALID_WINDOW_HANDLE;
        if (posted_.size() >= kMostMessages) return ERROR_NOT_ENOUGH_QUOTA;
        posted_.push_back(message);
        posted_.back().time = GetTickCount();
    }
    parker_.Unpark();
    return 0;
}

DWORD MessageQueue::Send(const MSG& message, Deadline deadline, LRESULT* answer) {
    MessageQueue& own = *OfCurrentThread();
    const auto sent = std::make_shared<SentMessage>();
    sent->message = message;
    sent->sender = &own.parker_;
    {
        const std::lock_guard<std::mutex> holder(lock_);
        if (closed_) return ERROR_INVALID_WINDOW_HANDLE;
        sent_.push_back(sent);
    }
    parker_.Unpark();
    while (!IsDone(*sent)) {
        own.RunSentMessages();
        if (IsDone(*sent)) break;
        if (!CurrentThreadIsTerminated() && own.parker_.ParkUntil(deadline)) continue;
        if (IsDone(*sent)) break;
        Withdraw(sent);
        return ERROR_TIMEOUT;
    }
    if (sent->state.load() == SentMessage::kRefused) return ERROR_INVALID_WINDOW_HANDLE;
    *answer = sent->answer;
    return 0;
}

void MessageQueue::Withdraw(const std::shared_ptr<SentMessage>& sent) {
    const std::lock_guard<std::mutex> holder(lock_);
    const auto found = std::find(sent_.begin(), sent_.end(), sent);
    if (found != sent_.end()) sent_.erase(found);
}

void MessageQueue::ForgetWindow(HWND window) {
    const std::lock_guard<std::mutex> holder(lock_);
    posted_.erase(std::remove_if(posted_.begin(), posted_.end(),
                                 [window](const MSG& message) { return message.hwnd == window; }),
                  posted_.end());
}

void MessageQueue::Close() {
    std::deque<std::shared_ptr<SentMessage>> waiting;
    {
        const std::lock_guard<std::mutex> holder(lock_);
        closed_ = true;
        posted_.clear();
        waiting.swap(sent_);
    }
    for (const auto& sent : waiting)
        EndSent(sent.get(), SentMessage::kRefused);
}

void MessageQueue::PostQuit(int exitCode) {
    const std::lock_guard<std::mutex> holder(lock_);
    quitPosted_ = true;
    quitCode_ = exitCode;
}

void MessageQueue::RunSentMessages() {
    for (;;) {
        std::shared_ptr<SentMessage> sent;
        {
            const std::lock_guard<std::mutex> holder(lock_);
            if (sent_.empty()) return;
            sent = std::move(sent_.front());
            sent_.pop_front();
        }
        const bool called = CallWindow(sent->message, &sent->answer);
        EndSent(sent.get(), called ? SentMessage::kAnswered : SentMessage::kRefused);
    }
}

bool MessageQueue::TakePosted(MSG* message, const MessageFilter& filter, bool remove) {
    const std::lock_guard<std::mutex> holder(lock_);
    const auto found = std::find_if(posted_.begin(), posted_.end(),
                                    [&filter](const MSG& posted) { return filter.Fits(posted); });
    if (found != posted_.end()) {
        *message = *found;
        if (remove) posted_.erase(found);
        return true;
    }
    if (!quitPosted_) return false;
    *message = {};
    message->message = WM_QUIT;
    message->wParam = static_cast<WPARAM>(quitCode_);
    if (remove) quitPosted_ = false;
    return true;
}

MessageQueue::Taken MessageQueue::Look(MSG* message, const MessageFilter& filter, bool remove) {
    RunSentMessages();
    MSG taken;
    if (!TakePosted(&taken, filter, remove)) return Taken::kNone;
    *message = taken;
    return taken.message == WM_QUIT ? Taken::kQuit : Taken::kMessage;
}

MessageQueue::Taken MessageQueue::Wait(MSG* message, const MessageFilter& filter) {
    for (;;) {
        const Taken taken = Look(message, filter, true);
        if (taken != Taken::kNone || CurrentThreadIsTerminated()) return taken;
        parker_.ParkUntil(kNoDeadline);
    }
}

}  // namespace platform
