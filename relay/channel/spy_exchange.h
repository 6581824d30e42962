// One request and its answer at a time on a spy socket that is read directly: two threads that use one socket
// take turns, so that neither takes the other's answer, nor closes a spy socket that the other is reading.
// Lock: `PendingResponseLock`, a leaf lock, guards the list of the exchanges under way; it is never held
// while anyone waits. An exchange lives on its thread's stack and costs no allocation; only a thread that has
// to wait makes an event.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include "base/atomic.h"
#include "relay/channel/pending_responses.h"

struct SocketContext;

/// Scoped turn on a context's spy socket. The caller holds a reference to the context and no lock of the
/// library.
class SpyExchange {
  public:
    /// Waits for the turn, at most as long as an answer is waited for, or `patience` milliseconds. After
    /// that, or without the means to wait, the exchange isn't entered.
    explicit SpyExchange(const SocketContext* context, DWORD patience = kResponseWaitMilliseconds);

    /// Ends the turn; the thread that has waited longest for this context is next.
    ~SpyExchange();

    SpyExchange(const SpyExchange&) = delete;
    SpyExchange& operator=(const SpyExchange&) = delete;

    bool Entered() const { return entered_; }

    /// Set when the application closes the socket: nobody wants the answer any more.
    const Atomic<bool>& Abandoned() const { return abandoned_; }

    /// Ends the waits of all exchanges of a context, so that closing a socket frees the thread that connects
    /// it. True when there was one.
    static bool Abandon(const SocketContext* context);

  private:
    static SpyExchange* First(const SocketContext* context);
    void Enter(DWORD patience);
    void Append();
    void Unlink();
    void WaitForTurn(DWORD patience);

    const SocketContext* const context_;
    SpyExchange* previous_ = nullptr;
    SpyExchange* next_ = nullptr;
    HANDLE turn_ = nullptr;  // of a thread that waits
    bool entered_ = false;
    Atomic<bool> abandoned_{false};
};
