// See relay_life.h.
#include "relay/split/relay_life.h"

#include "provider/guarded_sockets.h"
#include "relay/channel/pending_responses.h"
#include "relay/split/closing_sockets.h"
#include "relay/split/relay_close.h"
#include "relay/split/relay_completion_port.h"
#include "relay/split/relay_listener.h"
#include "relay/split/relay_requests.h"
#include "relay/split/relay_worker.h"

Atomic<bool> RelayShutdown;

namespace {

constexpr DWORD kStopMilliseconds = 5000;

void CloseAllConnections() {
    CloseRelayTable();
    for (DWORD relayIndex = AnyRelayConnection(); relayIndex != 0; relayIndex = AnyRelayConnection()) {
        RelayHold connection = FindRelayConnection(relayIndex);
        if (connection) CloseEntireRelayConnection(connection, true);
        connection.Release();
        RemoveRelayConnection(relayIndex);
    }
    CloseRemainingSockets();
}

/// Tells the worker to end and waits for it. False when it has not.
bool EndWorker(WorkerThread worker) {
    const HANDLE port = RelayCompletionPort;
    if (port != nullptr) PostQueuedCompletionStatus(port, kStopPacket, 0, nullptr);
    const StopDeadline deadline(kStopMilliseconds);
    return worker.Thread == nullptr || deadline.Await(&worker);
}

}  // namespace

void StartRelay() {
    RelayShutdown = false;
    OpenRelayTable();
}

bool StopRelay() {
    RelayShutdown = true;
    WorkerThread worker = CloseRelayListener();
    CloseAllConnections();
    bool ended = EndWorker(worker);
    // Sockets that the worker took over in its last moments.
    CloseRemainingSockets();
    ClearPendingResponses();
    ended = ended && PostedRequests == 0;
    const HANDLE port = RelayCompletionPort.Exchange(nullptr);
    if (!ended) return false;
    SafeCloseHandle(port);
    FreePerIODataPool();
    return true;
}

void DestroyRelay() {
    DestroyRelayListener();
    DestroyClosingSockets();
    DestroyRelayTable();
}
