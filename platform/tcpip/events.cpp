// Network events: what WSPEventSelect or WSPAsyncSelect asked for, told once each until the call that
// re-enables it. For an event object they are recorded until they are read; to a window each is posted.
//
// Reading re-enables FD_READ and FD_OOB, accepting FD_ACCEPT, a send that found no room FD_WRITE, a connect
// FD_CONNECT; FD_CLOSE comes once per connection.
#include <ws2spi.h>

#include "platform/tcpip/operations.h"
#include "platform/tcpip/provider.h"

namespace tcpip {

void Socket::RecordEventLocked(LONG event, int bit, int error) {
    if ((eventMask.load() & eventArmed & event) == 0) return;
    eventArmed &= ~event;
    if (eventTarget.window != nullptr) {
        // A window that is gone or whose thread's queue is full loses the event.
        PostMessageA(eventTarget.window, eventTarget.message, eventTarget.socket,
                     WSAMAKESELECTREPLY(event, error));
        return;
    }
    eventRecord.lNetworkEvents |= event;
    eventRecord.iErrorCode[bit] = error;
    SetEvent(eventTarget.event);
}

void Socket::RecordEventsLocked() {
    const LONG wanted = eventMask.load() & eventArmed;
    if (wanted == 0 || IsClosed()) return;
    const State now = state.load();
    if (IsStream() && now != State::Connected && now != State::Listening) return;
    kernel::PollEntry entry = {
        fd_,
        static_cast<short>(kernel::kReadable | kernel::kWritable | kernel::kPriority | kernel::kPeerClosed),
        0};
    int error = 0;
    if (kernel::Poll(&entry, 1, 0, &error) <= 0) return;
    const unsigned got = static_cast<unsigned short>(entry.got);
    if (now == State::Listening) {
        if ((got & kernel::kReadable) != 0) RecordEventLocked(FD_ACCEPT, FD_ACCEPT_BIT, 0);
        return;
    }
    if ((got & kernel::kWritable) != 0) RecordEventLocked(FD_WRITE, FD_WRITE_BIT, 0);
    if ((got & kernel::kPriority) != 0) RecordEventLocked(FD_OOB, FD_OOB_BIT, 0);
    if (!IsStream()) {
        if ((got & (kernel::kReadable | kernel::kError)) != 0) RecordEventLocked(FD_READ, FD_READ_BIT, 0);
        return;
    }
    int bytes = 0;
    if ((got & kernel::kReadable) != 0) kernel::BytesReadable(fd_, &bytes);
    if (bytes > 0) {
        RecordEventLocked(FD_READ, FD_READ_BIT, 0);
    } else if ((got & kernel::kError) != 0 || connectionReset.load()) {
        RecordEventLocked(FD_CLOSE, FD_CLOSE_BIT, WSAECONNRESET);
    } else if ((got & (kernel::kPeerClosed | kernel::kHangUp)) != 0) {
        RecordEventLocked(FD_CLOSE, FD_CLOSE_BIT, 0);
    }
}

void Socket::RearmEvents(LONG events) {
    if (eventMask.load(std::memory_order_relaxed) == 0) return;
    std::lock_guard<std::mutex> guard(lock);
    eventArmed |= events;
    RecordEventsLocked();
}

int SelectEvents(Socket& socket, const EventTarget& target, LONG mask) {
    if ((mask & ~FD_ALL_EVENTS) != 0) return WSAEINVAL;
    std::lock_guard<std::mutex> guard(socket.lock);
    socket.eventTarget = target;
    socket.eventRecord = {};
    socket.eventArmed = FD_READ | FD_OOB | FD_ACCEPT | FD_CONNECT | FD_CLOSE;
    if (!socket.IsStream() || socket.RefreshConnectLocked() == State::Connected)
        socket.eventArmed |= FD_WRITE;
    socket.eventMask.store(mask);
    if (mask == 0) return 0;
    socket.nonBlocking.store(true);
    const int error = socket.RegisterLocked();
    if (error != 0) {
        socket.eventMask.store(0);
        return error;
    }
    socket.RecordEventsLocked();
    return 0;
}

int WSPAPI TcpipEventSelect(SOCKET s, WSAEVENT event, LONG mask, LPINT lpErrno) {
    return RunOnSocket("lower WSPEventSelect", WSAENETDOWN, s, lpErrno,
                       [&](platform::PlatformCall&, const SocketUse& socket) {
                           if (mask != 0 && event == nullptr) return WSAEINVAL;
                           EventTarget target;
                           target.event = event;
                           return SelectEvents(*socket, target, mask);
                       });
}

int WSPAPI TcpipEnumNetworkEvents(SOCKET s, WSAEVENT event, LPWSANETWORKEVENTS events, LPINT lpErrno) {
    return RunOnSocket("lower WSPEnumNetworkEvents", WSAENETDOWN, s, lpErrno,
                       [&](platform::PlatformCall&, const SocketUse& socket) {
                           if (events == nullptr) return WSAEFAULT;
                           std::lock_guard<std::mutex> guard(socket->lock);
                           // Looked at now as well: the caller may be ahead of the reactor.
                           socket->RefreshConnectLocked();
                           socket->RecordEventsLocked();
                           *events = socket->eventRecord;
                           socket->eventRecord = {};
                           if (event != nullptr) ResetEvent(event);
                           return 0;
                       });
}

int WSPAPI TcpipAsyncSelect(SOCKET s, HWND window, unsigned int message, LONG mask, LPINT lpErrno) {
    return RunOnSocket("lower WSPAsyncSelect", WSAENETDOWN, s, lpErrno,
                       [&](platform::PlatformCall&, const SocketUse& socket) {
                           if (mask != 0 && !IsWindow(window)) return WSAEINVAL;
                           return SelectEvents(*socket, {nullptr, window, message, s}, mask);
                       });
}

}  // namespace tcpip
