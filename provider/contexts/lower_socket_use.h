// A closed lower socket's value may be given to the next socket at once. An overlapped request that a worker
// hands down at that moment would reach that one: the application's bytes would go out on another connection.
// So a request counts itself in its socket's context on its way down, and the close waits for it.
#pragma once

#include <windows.h>

#include "provider/contexts/socket_context.h"

/// Keeps the lower socket of a context open for the length of a lower call that does not wait for the
/// network. Converts to false when the application has closed the socket: its lower socket must not be used
/// any more. The caller has a reference on the context.
class WayDown {
  public:
    explicit WayDown(SocketContext* context) : context_(context) {
        // Before the look at Closing, as the close sets that before it looks at the count: one of the two
        // sees the other.
        InterlockedIncrement(&context->OnTheWayDown);
        open_ = !context->Closing;
    }
    ~WayDown() { InterlockedDecrement(&context_->OnTheWayDown); }
    WayDown(const WayDown&) = delete;
    WayDown& operator=(const WayDown&) = delete;

    explicit operator bool() const { return open_; }

  private:
    SocketContext* context_;
    bool open_;
};

/// Waits until nothing is on its way down to a socket that is marked as closing, for a second at most: a
/// lower provider that makes such a call wait for the network is woken by the close itself. No lock may be
/// held.
inline void AwaitWaysDown(SocketContext* context) {
    constexpr DWORD kPatienceMilliseconds = 1000;
    const DWORD start = GetTickCount();
    while (InterlockedExchangeAdd(&context->OnTheWayDown, 0) > 0 &&
           GetTickCount() - start < kPatienceMilliseconds) {
        Sleep(1);
    }
}
