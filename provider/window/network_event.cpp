// See network_event.h.
#include "provider/window/network_event.h"

#include "provider/contexts/socket_context.h"

namespace {

constexpr DWORD kWaitMilliseconds = 500;
constexpr int kMostWaits = 7;
constexpr DWORD kRetryMilliseconds = 20;

/// Where an event goes, and as whose.
struct Destination {
    HWND Window;
    UINT Message;
    SOCKET Socket;
};

/// False when the lower socket has no context. GlobalLock keeps the context while it is read.
bool FindDestination(SOCKET lowerSocket, Destination* destination) {
    const Locker lock(qx::GlobalLock);
    const SocketContext* const context = FindSocketContextByProviderSocket(nullptr, lowerSocket);
    if (context == nullptr) return false;
    *destination = {context->AsyncWindow, context->AsyncMessage, context->LayeredSocket};
    return true;
}

/// The time in which an event has to find its socket, and a place in the application's queue.
class Patience {
  public:
    bool IsOver() const { return GetTickCount() - start_ >= kMostWaits * kWaitMilliseconds; }

  private:
    const DWORD start_ = GetTickCount();
};

/// Posts an event, again and again while the queue of the window's thread is full: a socket whose event is
/// lost falls silent, since the lower provider waits for the application to react.
void Deliver(const WindowLife& life, const Destination& to, LPARAM eventAndError, const Patience& patience) {
    while (to.Window != nullptr && !life.PostToApplication(to.Window, to.Message, to.Socket, eventAndError) &&
           IsWindow(to.Window) && !patience.IsOver()) {
        if (WaitForSingleObject(life.Stop, kRetryMilliseconds) != WAIT_TIMEOUT) return;
    }
}

/// Waits until some context joins a list; `*waits` counts how often none did. False when it makes no sense to
/// look again.
bool AwaitContext(const WindowLife& life, int* waits) {
    const HANDLE added = ContextAddedEvent;
    const HANDLE ends[] = {life.Stop, added};
    switch (WaitForMultipleObjects(2, ends, FALSE, kWaitMilliseconds)) {
        case WAIT_OBJECT_0 + 1:
            ResetEvent(added);
            return true;
        case WAIT_TIMEOUT:
            return ++*waits < kMostWaits;
        default:
            return false;
    }
}

}  // namespace

bool ForwardNetworkEvent(const WindowLife& life, SOCKET lowerSocket, LPARAM eventAndError) {
    // A process that makes many sockets ends waits early again and again; they count by their time.
    const Patience patience;
    Destination destination{};
    int waits = 0;
    while (!FindDestination(lowerSocket, &destination)) {
        // Without this, an event of a socket that was just closed would hold up those of all others. Who
        // arrived since the lookup is found by one more.
        if (!IsSocketArriving()) {
            if (!FindDestination(lowerSocket, &destination)) return false;
            break;
        }
        if (patience.IsOver() || !AwaitContext(life, &waits)) return false;
    }
    Deliver(life, destination, eventAndError, patience);
    return true;
}
