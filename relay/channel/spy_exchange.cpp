// See spy_exchange.h.
#include "relay/channel/spy_exchange.h"

#include "base/locker.h"
#include "provider/contexts/socket_context.h"
#include "provider/guarded_sockets.h"
#include "provider/process_state.h"

namespace {

// Exchanges under way and the threads that wait for one, oldest first. Under PendingResponseLock.
SpyExchange* Oldest = nullptr;
SpyExchange* Newest = nullptr;

}  // namespace

SpyExchange::SpyExchange(const SocketContext* context, DWORD patience) : context_(context) {
    Enter(patience);
    // A close, or the last clean-up, abandons the exchanges that it finds; one that enters later finds the
    // mark that it set before.
    if (context->Closing || context->WaitsEnd) abandoned_ = true;
}

void SpyExchange::Enter(DWORD patience) {
    {
        Locker lock(PendingResponseLock);
        if (First(context_) == nullptr) {
            Append();
            entered_ = true;
            return;
        }
    }
    WaitForTurn(patience);
}

SpyExchange::~SpyExchange() {
    if (entered_) {
        Locker lock(PendingResponseLock);
        Unlink();
        SpyExchange* const successor = First(context_);
        if (successor != nullptr) {
            successor->entered_ = true;
            SetEvent(successor->turn_);
        }
    }
    SafeCloseHandle(turn_);
}

void SpyExchange::WaitForTurn(DWORD patience) {
    turn_ = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    if (turn_ == nullptr) return;
    {
        Locker lock(PendingResponseLock);
        entered_ = First(context_) == nullptr;
        Append();
        if (entered_) return;
    }
    WaitForSingleObject(turn_, patience);
    // The turn may have come just after the time was up; whoever gave it has let go of this exchange by now.
    Locker lock(PendingResponseLock);
    if (!entered_) Unlink();
}

bool SpyExchange::Abandon(const SocketContext* context) {
    Locker lock(PendingResponseLock);
    bool found = false;
    for (SpyExchange* exchange = Oldest; exchange != nullptr; exchange = exchange->next_) {
        if (exchange->context_ != context) continue;
        exchange->abandoned_ = true;
        found = true;
    }
    return found;
}

SpyExchange* SpyExchange::First(const SocketContext* context) {
    SpyExchange* exchange = Oldest;
    while (exchange != nullptr && exchange->context_ != context)
        exchange = exchange->next_;
    return exchange;
}

void SpyExchange::Append() {
    previous_ = Newest;
    (Newest != nullptr ? Newest->next_ : Oldest) = this;
    Newest = this;
}

void SpyExchange::Unlink() {
    (previous_ != nullptr ? previous_->next_ : Oldest) = next_;
    (next_ != nullptr ? next_->previous_ : Newest) = previous_;
}
