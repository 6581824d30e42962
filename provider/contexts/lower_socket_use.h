// A closed lower socket's value may be given to the next socket at once. An overlapped request that a worker
// hands down at that moment would reach that one: the application's bytes would go out on another connection.
// So a request counts itself in its socket's context on its way down, and the close waits for it.
#pragma once

#include <windows.h>

#include "provider/contexts/socket_context.h"

/// Keeps the lower socket of a context open for the length of a lower call that does not wait for the
/// network. Converts to false when the application has closed the socket: its lower socket must not be used
/// any more. The caller has a reference on the context.
class LowerSocketUse {
  public:
    explicit LowerSocketUse(SocketContext* context) : context_(context) {
        // Before the look at Closing, as the close sets that before it looks at the count: one of the two
        // sees the other.
        context->LowerSocketUses.Increment();
        open_ = !context->Closing;
    }
    ~LowerSocketUse() { context_->LowerSocketUses.Decrement(); }
    LowerSocketUse(const LowerSocketUse&) = delete;
    LowerSocketUse& operator=(const LowerSocketUse&) = delete;

    explicit operator bool() const { return open_; }

  private:
    SocketContext* context_;
    bool open_;
};

/// Waits until nobody uses the lower socket of a context that is marked as closing, for a second at most: a
/// lower provider that makes such a call wait for the network is woken by the close itself. No lock may be
/// held.
inline void AwaitLowerSocketUses(SocketContext* context) {
    constexpr DWORD kPatienceMilliseconds = 1000;
    const DWORD start = GetTickCount();
    // The close counts itself too: a user that counts itself later sees Closing.
    const LONG own = 1;
    context->LowerSocketUses.Increment();
    while (context->LowerSocketUses.Acquire() > own && GetTickCount() - start < kPatienceMilliseconds) {
        Sleep(1);
    }
    context->LowerSocketUses.Decrement();
}
