// See relay_life.h.
#include "relay/split/relay_life.h"

#include "provider/guarded_sockets.h"
#include "relay/channel/pending_responses.h"
#include "relay/split/relay_completion_port.h"

Atomic<bool> RelayShutdown;

namespace {

/// Byte count of the completion packet that ends the relay worker.
constexpr DWORD kStopPacket = 0xFFFFFFFF;

/// Tells the relay worker to end and closes the port that it waits on.
void StopRelayWorker() {
    const HANDLE port = RelayCompletionPort.Exchange(nullptr);
    if (port == nullptr) return;
    PostQueuedCompletionStatus(port, kStopPacket, 0, nullptr);
    SafeCloseHandle(port);
}

}  // namespace

void StartRelay() {
    RelayShutdown = false;
}

void StopRelay() {
    RelayShutdown = true;
    SafeCloseSocket(RelayListenSocket.Exchange(INVALID_SOCKET));
    StopRelayWorker();
    ClearPendingResponses();
}
