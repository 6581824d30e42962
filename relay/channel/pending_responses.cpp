// Requests of relayed sockets whose answers the relay worker reads: who waits for which. One table under
// `PendingResponseLock`; nobody waits or calls into Winsock while holding it. It is made on first use and has
// no destructor, since other threads may still be inside it when the process exits.

#include "relay/channel/pending_responses.h"

#include <algorithm>
#include <new>
#include <unordered_map>
#include <utility>

#include "base/locker.h"
#include "base/process_object.h"
#include "base/trace.h"
#include "provider/contexts/socket_context.h"
#include "provider/guarded_sockets.h"
#include "provider/process_state.h"

namespace {

struct PendingResponse {
    HANDLE Event = INVALID_HANDLE_VALUE;  // auto-reset
    PooledResponse Response;
    SOCKET SpySocket = INVALID_SOCKET;
    bool Awaited = false;  // a thread waits for the event, and closes it
    bool Woken = false;    // without an answer
};

using PendingResponseTable = std::unordered_map<DWORD, PendingResponse>;
ProcessObject<PendingResponseTable> Table;

enum class Arrival {
    kAwaited,    // nothing yet: the event is to be waited for
    kArrived,    // the answer is there already
    kCleared,    // the clean-up took the waiter away, and closed its event
    kDisplaced,  // message ids have come round: a younger waiter has the entry, this one only its event
};

/// Begins a wait.
Arrival BeginWait(DWORD messageId, HANDLE event) {
    const Locker lock(PendingResponseLock);
    const auto found = Table.Get().find(messageId);
    if (found == Table.Get().end()) return Arrival::kCleared;
    PendingResponse& entry = found->second;
    if (entry.Event != event) return Arrival::kDisplaced;
    entry.Awaited = true;
    return entry.Response != nullptr ? Arrival::kArrived : Arrival::kAwaited;
}

/// Ends a wait: takes what has arrived, also in the moment after the time was up, and closes the event.
PooledResponse EndWait(DWORD messageId, HANDLE event) {
    PooledResponse response;
    {
        const Locker lock(PendingResponseLock);
        PendingResponseTable& table = Table.Get();
        const auto found = table.find(messageId);
        if (found != table.end() && found->second.Event == event) {
            response = std::move(found->second.Response);
            table.erase(found);
        }
    }
    SafeCloseHandle(event);
    return response;
}

void TraceNoAnswer(const char* what, DWORD messageId, const SocketContext* context) {
    Trace("ERROR:Failed to get response for message id %d for OL operation on socket %d. %s. Details: %s\n",
          static_cast<int>(messageId), static_cast<int>(context->LayeredSocket), what,
          DescribeContext(context).c_str());
}

}  // namespace

HANDLE CreateResponseWait(DWORD messageId, SOCKET spySocket) {
    if (spySocket == INVALID_SOCKET) return INVALID_HANDLE_VALUE;
    const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    if (event == nullptr) return INVALID_HANDLE_VALUE;
    PendingResponse waiter;
    waiter.Event = event;
    waiter.SpySocket = spySocket;
    try {
        const Locker lock(PendingResponseLock);
        // An older waiter of the same id keeps its event; its answer goes back to the pool after the lock.
        std::swap(Table.Get()[messageId], waiter);
    } catch (const std::bad_alloc&) {
        SafeCloseHandle(event);
        return INVALID_HANDLE_VALUE;
    }
    return event;
}

PooledResponse FetchDeliveredResponse(DWORD messageId, const SocketContext* context, HANDLE event) {
    PooledResponse response;
    const Arrival arrival = BeginWait(messageId, event);
    if (arrival == Arrival::kDisplaced) TraceNoAnswer("Different event handle", messageId, context);
    if (arrival != Arrival::kCleared) {
        const bool signalled = arrival == Arrival::kArrived ||
                               WaitForSingleObject(event, kResponseWaitMilliseconds) == WAIT_OBJECT_0;
        response = EndWait(messageId, event);
        if (response != nullptr) return response;
        if (!signalled) TraceNoAnswer("Timeout while waiting for the event", messageId, context);
    }
    Trace(
        "ERROR:Failed to get response for OL operation. No response was set for the message id %d. Closing "
        "connection.#Details: %s #\n",
        static_cast<int>(messageId), DescribeContext(context).c_str());
    return nullptr;
}

void WakeResponseWaiters(SOCKET spySocket) {
    const Locker lock(PendingResponseLock);
    for (auto& item : Table.Get()) {
        PendingResponse& entry = item.second;
        if (entry.SpySocket != spySocket || entry.Woken) continue;
        entry.Woken = true;
        SetEvent(entry.Event);
    }
}

bool HasResponseWaiters(SOCKET spySocket) {
    const Locker lock(PendingResponseLock);
    const PendingResponseTable& table = Table.Get();
    return std::any_of(table.begin(), table.end(),
                       [&](const auto& item) { return item.second.SpySocket == spySocket; });
}

bool DeliverResponse(PooledResponse& response) {
    PooledResponse replaced;  // goes back to the pool after the lock
    const Locker lock(PendingResponseLock);
    const auto found = Table.Get().find(response->RequestId);
    if (found == Table.Get().end()) return false;
    PendingResponse& entry = found->second;
    replaced = std::exchange(entry.Response, std::move(response));
    if (!entry.Woken) SetEvent(entry.Event);
    return true;
}

void ClearPendingResponses() {
    PendingResponseTable released;
    {
        const Locker lock(PendingResponseLock);
        // At the end of the process a killed thread may have been making the table.
        PendingResponseTable* const table = Table.GetIfMade();
        if (table == nullptr) return;
        for (auto& item : *table) {
            // Under the lock: a thread that waits closes its event once it has had the lock.
            if (item.second.Awaited) {
                SetEvent(item.second.Event);
            } else {
                SafeCloseHandle(item.second.Event);
            }
        }
        released.swap(*table);
    }
}
