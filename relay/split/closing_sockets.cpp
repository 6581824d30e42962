// See closing_sockets.h.
#include "relay/split/closing_sockets.h"

#include <new>
#include <unordered_map>
#include <utility>

#include "base/process_object.h"
#include "provider/guarded_sockets.h"
#include "relay/split/relay_requests.h"

namespace {

constexpr DWORD kClosingMilliseconds = 10000;

struct ClosingSocket {
    DWORD PendingSends;
    bool PeerHasEnded;
    DWORD Start;
};

struct ClosingSockets {
    /// Held while a socket is taken over, so that no packet closes it before that is done; the socket's own
    /// calls come back into the layer.
    OwnedCriticalSection ClosingLock QX_ACQUIRED_BEFORE(qx::GlobalLock);
    std::unordered_map<SOCKET, ClosingSocket> Sockets QX_GUARDED_BY(ClosingLock);
};

ProcessObject<ClosingSockets> Sockets;

enum class AfterPacket { kNotClosing, kReceiveOn, kWait, kClose };

/// What is to be done after a packet; a socket that is to be closed is no longer in the list.
AfterPacket CountPacket(const PerIOData& record, DWORD bytes) {
    ClosingSockets& closing = Sockets.Get();
    const Locker lock(closing.ClosingLock);
    const auto found = closing.Sockets.find(record.Socket);
    if (found == closing.Sockets.end()) return AfterPacket::kNotClosing;
    ClosingSocket& socket = found->second;
    const bool received = record.Operation <= RelayOpSpyRecv;
    if (!received) {
        // Without bytes the connection is broken, and the others' packets will say the same.
        socket.PendingSends = bytes == 0 || socket.PendingSends == 0 ? 0 : socket.PendingSends - 1;
    } else if (bytes == 0) {
        socket.PeerHasEnded = true;
    } else {
        return AfterPacket::kReceiveOn;
    }
    if (!socket.PeerHasEnded || socket.PendingSends > 0) return AfterPacket::kWait;
    closing.Sockets.erase(found);
    return AfterPacket::kClose;
}

/// Takes a socket out of the list that has been there for `milliseconds`; INVALID_SOCKET when there is none.
SOCKET TakeOlderThan(DWORD milliseconds) {
    ClosingSockets& closing = Sockets.Get();
    const DWORD now = GetTickCount();
    const Locker lock(closing.ClosingLock);
    for (auto at = closing.Sockets.begin(); at != closing.Sockets.end(); ++at) {
        if (now - at->second.Start < milliseconds) continue;
        const SOCKET s = at->first;
        closing.Sockets.erase(at);
        return s;
    }
    return INVALID_SOCKET;
}

/// Puts the socket into the list and begins its end. False when it could not be.
bool TakeOver(SOCKET s, const ClosingState& state) {
    ClosingSockets& closing = Sockets.Get();
    const Locker lock(closing.ClosingLock);
    try {
        closing.Sockets[s] = {state.PendingSends, state.PeerHasEnded, GetTickCount()};
    } catch (const std::bad_alloc&) {
        return false;
    }
    SafeShutdown(s, SD_SEND);
    if (state.PeerHasEnded || state.ReceiveIsPosted) return true;
    if (PostRelayReceive(s, kRelayReceiveBytes, RelayOpClientRecv, 0)) return true;
    closing.Sockets.erase(s);
    return false;
}

bool Forget(SOCKET s) {
    ClosingSockets& closing = Sockets.Get();
    const Locker lock(closing.ClosingLock);
    return closing.Sockets.erase(s) != 0;
}

}  // namespace

void CloseRelaySocket(SOCKET s) {
    if (SafeCloseSocket(s) != 0) SafeCloseSocket(s);
}

void CloseWhenSent(SOCKET s, const ClosingState& state) {
    if (s == INVALID_SOCKET) return;
    const bool nothingToAwait = state.PeerHasEnded && state.PendingSends == 0;
    if (nothingToAwait || !TakeOver(s, state)) CloseRelaySocket(s);
}

void ContinueClosing(PooledPerIOData record, DWORD bytes) {
    const SOCKET s = record->Socket;
    AfterPacket what = CountPacket(*record, bytes);
    if (what == AfterPacket::kReceiveOn) {
        record->PartialMessage.reset();
        record->Buffer.length = record->BufferSize;
        if (record->Buffer.data != nullptr && PostRelayReceive(std::move(record))) return;
        if (Forget(s)) what = AfterPacket::kClose;
    }
    if (what == AfterPacket::kClose) CloseRelaySocket(s);
}

void CloseOverdueSockets() {
    for (SOCKET s = TakeOlderThan(kClosingMilliseconds); s != INVALID_SOCKET;
         s = TakeOlderThan(kClosingMilliseconds)) {
        CloseRelaySocket(s);
    }
}

void CloseRemainingSockets() {
    for (SOCKET s = TakeOlderThan(0); s != INVALID_SOCKET; s = TakeOlderThan(0))
        CloseRelaySocket(s);
}

DWORD ClosingSocketCount() {
    ClosingSockets& closing = Sockets.Get();
    const Locker lock(closing.ClosingLock);
    return static_cast<DWORD>(closing.Sockets.size());
}

void DestroyClosingSockets() {
    Sockets.Destroy();
}
