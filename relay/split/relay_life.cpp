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
Atomic<bool> RelaySocketsClosed;

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
    RelaySocketsClosed = true;
    const HANDLE port = RelayCompletionPort;
    if (port != nullptr) PostQueuedCompletionStatus(port, kStopPacket, 0, nullptr);
    const StopDeadline deadline(kStopMilliseconds);
    return worker.Thread == nullptr || deadline.Await(&worker);
}

}  // namespace

void StartRelay() {
    RelayShutdown = false;
    RelaySocketsClosed = false;
    OpenRelayTable();
}

bool StopRelay() {
    RelayShutdown = true;
    WorkerThread worker = CloseRelayListener();
    CloseAllConnections();
    const bool workerEnded = EndWorker(worker);
    // Sockets that the worker took over in its last moments.
    CloseRemainingSockets();
    ClearPendingResponses();
    const HANDLE port = RelayCompletionPort.Exchange(nullptr);
    // The next start counts from none: what comes now comes to a port that nobody looks at any more.
    if (!workerEnded || PostedRequests.Exchange(0) != 0) return false;
    SafeCloseHandle(port);
    FreePerIODataPool();
    return true;
}

void DestroyRelay() {
    DestroyRelayListener();
    DestroyClosingSockets();
    DestroyRelayTable();
}
