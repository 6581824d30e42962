// Requests of relayed sockets whose answers the relay worker reads: who waits for which. One table under
// `PendingResponseLock`; nobody waits or calls into Winsock while holding it. It is made on first use and has
// no destructor, since other threads may still be inside it when the process exits.

#include "relay/channel/pending_responses.h"

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
    HANDLE Event = INVALID_HANDLE_VALUE;  // auto-reset; INVALID_HANDLE_VALUE once woken without an answer
    PooledResponse Response;
    SOCKET SpySocket = INVALID_SOCKET;
};

using PendingResponseTable = std::unordered_map<DWORD, PendingResponse>;
ProcessObject<PendingResponseTable> Table;

/// Whether the answer has arrived already, which makes waiting needless.
bool ArrivedEarly(DWORD messageId, const SocketContext* context, HANDLE event) {
    bool otherEvent = false;
    {
        Locker lock(PendingResponseLock);
        const auto entry = Table.Get().find(messageId);
        if (entry == Table.Get().end()) return false;
        if (entry->second.Response != nullptr) return true;
        otherEvent = entry->second.Event != event;
    }
    if (otherEvent) {
        Trace(
            "ERROR:Failed to get response for message id %d for OL operation on socket %d. Different event "
            "handle. "
            "Details: %s\n",
            static_cast<int>(messageId), static_cast<int>(context->LayeredSocket),
            DescribeContext(context).c_str());
    }
    return false;
}

/// Ends the wait: takes what has arrived, also in the moment after the time was up.
PooledResponse RemoveWaiter(DWORD messageId, HANDLE event) {
    Locker lock(PendingResponseLock);
    PendingResponseTable& table = Table.Get();
    const auto entry = table.find(messageId);
    // The clean-up has taken the entry away and closed its event.
    if (entry == table.end()) return nullptr;
    PooledResponse response = std::move(entry->second.Response);
    // Another waiter's entry, made when the message ids had come round, stays with that waiter.
    const HANDLE registered = entry->second.Event;
    if (registered == event || registered == INVALID_HANDLE_VALUE) table.erase(entry);
    SafeCloseHandle(event);
    return response;
}

}  // namespace

HANDLE CreateResponseWait(DWORD messageId, SocketContext* context) {
    if (context == nullptr || !context->RelayWanted) return INVALID_HANDLE_VALUE;
    const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    if (event == nullptr) return INVALID_HANDLE_VALUE;
    PooledResponse unfetched;  // goes back to the pool after the lock
    try {
        Locker lock(PendingResponseLock);
        PendingResponse& entry = Table.Get()[messageId];
        entry.Event = event;
        unfetched = std::move(entry.Response);
        entry.SpySocket = context->SpySocket;
    } catch (const std::bad_alloc&) {
        SafeCloseHandle(event);
        return INVALID_HANDLE_VALUE;
    }
    return event;
}

PooledResponse FetchDeliveredResponse(DWORD messageId, const SocketContext* context, HANDLE event) {
    const bool waited = !ArrivedEarly(messageId, context, event);
    const bool signalled = !waited || WaitForSingleObject(event, kResponseWaitMilliseconds) == WAIT_OBJECT_0;
    PooledResponse response = RemoveWaiter(messageId, event);
    if (response != nullptr) return response;
    if (!signalled) {
        Trace(
            "ERROR:Failed to get response for message id %d for OL operation on socket %d. Timeout while "
            "waiting "
            "for the event. Details: %s\n",
            static_cast<int>(messageId), static_cast<int>(context->LayeredSocket),
            DescribeContext(context).c_str());
    }
    Trace(
        "ERROR:Failed to get response for OL operation. No response was set for the message id %d. Closing "
        "connection.#Details: %s #\n",
        static_cast<int>(messageId), DescribeContext(context).c_str());
    return nullptr;
}

void WakeResponseWaiters(SOCKET spySocket) {
    Locker lock(PendingResponseLock);
    for (auto& item : Table.Get()) {
        PendingResponse& entry = item.second;
        if (entry.SpySocket != spySocket || entry.Event == INVALID_HANDLE_VALUE) continue;
        SetEvent(std::exchange(entry.Event, INVALID_HANDLE_VALUE));
    }
}

bool DeliverResponse(PooledResponse& response) {
    Locker lock(PendingResponseLock);
    const auto entry = Table.Get().find(response->RequestId);
    if (entry == Table.Get().end()) return false;
    entry->second.Response = std::move(response);
    const HANDLE event = entry->second.Event;
    if (event != nullptr && event != INVALID_HANDLE_VALUE) SetEvent(event);
    return true;
}

void ClearPendingResponses() {
    PendingResponseTable released;
    {
        Locker lock(PendingResponseLock);
        // At the end of the process a killed thread may have been making the table.
        PendingResponseTable* const table = Table.GetIfMade();
        if (table != nullptr) released.swap(*table);
    }
    for (auto& item : released) {
        const HANDLE event = item.second.Event;
        if (event != nullptr && event != INVALID_HANDLE_VALUE) SetEvent(event);
        SafeCloseHandle(event);
    }
}
