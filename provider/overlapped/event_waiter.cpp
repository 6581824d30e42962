// A thread's places are given out before the lower call is made, so that a request that is under way is
// always waited for. Each thread keeps its table to itself; it is woken to take over what was handed to it.
#include "provider/overlapped/event_waiter.h"

#include <utility>

#include "base/locker.h"
#include "provider/catalog/catalog.h"
#include "provider/guarded_sockets.h"
#include "provider/overlapped/manager_handles.h"
#include "provider/overlapped/overlapped_completion.h"
#include "provider/overlapped/overlapped_execution.h"
#include "provider/overlapped/port_worker.h"
#include "provider/process_state.h"

/// Lies in the private heap, which the thread keeps. All but Wake is guarded by OverlappedLock.
struct EventWaiter {
    WorkerThread Worker;
    HANDLE Wake;     ///< auto-reset
    DWORD Places;    ///< given out
    bool Stopping;   ///< is to end
    bool Ended;      ///< takes over nothing more
    bool Abandoned;  ///< the thread is gone; whoever has the last place frees the rest
    OverlappedOperation* HandedOver;
    CatalogLifetime* Lifetime;
    EventWaiter* Next;
};

namespace {

constexpr DWORD kPlaces = MAXIMUM_WAIT_OBJECTS - 1;  // one is for the wake-up
constexpr DWORD kCancelMilliseconds = 1000;
constexpr DWORD kFailedWaitMilliseconds = 10;

EventWaiter* FirstWaiter QX_GUARDED_BY(OverlappedLock) = nullptr;

/// What one thread waits for.
struct WaitTable {
    HANDLE Events[MAXIMUM_WAIT_OBJECTS];
    OverlappedOperation* Operations[MAXIMUM_WAIT_OBJECTS];
    DWORD Count = 1;  // the wake-up stands first

    void Add(OverlappedOperation* operation) {
        Events[Count] = EventOf(&operation->ProviderOverlapped);
        Operations[Count++] = operation;
    }

    OverlappedOperation* Remove(DWORD index) {
        OverlappedOperation* const operation = Operations[index];
        --Count;
        Operations[index] = Operations[Count];
        Events[index] = Events[Count];
        return operation;
    }
};

void FreeWaiter(EventWaiter* waiter) {
    SafeCloseHandle(waiter->Wake);
    HeapFree(waiter->Lifetime->Heap, 0, waiter);
}

void GivePlaceBack(EventWaiter* waiter) {
    const Locker lock(OverlappedLock);
    if (--waiter->Places == 0 && waiter->Abandoned) FreeWaiter(waiter);
}

/// Ends a request whose event is set.
void CompleteByEvent(OverlappedOperation* operation) {
    SafeCloseHandle(EventOf(&operation->ProviderOverlapped));
    operation->ProviderOverlapped.hEvent = nullptr;
    CompleteOverlappedOperation(WSA_IO_PENDING, 0, &operation->ProviderOverlapped, 0);
}

/// Ends a request by cancelling it. What the lower provider still holds on to after that keeps its record,
/// and with it heap and library: it may yet write into them. `*patience` is what all of them are waited for.
void EndByCancelling(OverlappedOperation* operation, DWORD* patience) {
    CancelIoEx(reinterpret_cast<HANDLE>(operation->ProviderSocket), &operation->ProviderOverlapped);
    if (WaitForSingleObject(EventOf(&operation->ProviderOverlapped), *patience) == WAIT_TIMEOUT) {
        *patience = 0;
    } else {
        CompleteByEvent(operation);
    }
}

/// Takes over what was handed to a thread. False when it is to end; after that nothing is handed over.
bool TakeOver(EventWaiter* waiter, WaitTable* table) {
    const Locker lock(OverlappedLock);
    while (waiter->HandedOver != nullptr) {
        OverlappedOperation* const operation = waiter->HandedOver;
        waiter->HandedOver = operation->NextPending;
        table->Add(operation);
    }
    if (waiter->Stopping) waiter->Ended = true;
    return !waiter->Stopping;
}

DWORD WINAPI WaitForEvents(LPVOID argument) {
    auto* const waiter = static_cast<EventWaiter*>(argument);
    CatalogLifetime* const lifetime = waiter->Lifetime;
    WaitTable table;
    table.Events[0] = waiter->Wake;
    while (TakeOver(waiter, &table)) {
        const DWORD result = WaitForMultipleObjects(table.Count, table.Events, FALSE, INFINITE);
        const DWORD index = result - WAIT_OBJECT_0;
        if (index >= table.Count) {
            Sleep(kFailedWaitMilliseconds);
        } else if (index != 0) {
            CompleteByEvent(table.Remove(index));
            GivePlaceBack(waiter);
        }
    }
    DWORD patience = kCancelMilliseconds;
    while (table.Count > 1) {
        EndByCancelling(table.Remove(table.Count - 1), &patience);
        GivePlaceBack(waiter);
    }
    ReleaseCatalogLifetime(lifetime);
    return 0;
}

/// Null when there is no memory or no thread.
EventWaiter* StartWaiter(CatalogLifetime* lifetime, const ThreadStarter& starter)
    QX_REQUIRES(OverlappedLock) {
    auto* const waiter =
        static_cast<EventWaiter*>(HeapAlloc(lifetime->Heap, HEAP_ZERO_MEMORY, sizeof(EventWaiter)));
    if (waiter == nullptr) return nullptr;
    waiter->Lifetime = lifetime;
    waiter->Wake = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    HoldCatalogLifetime(lifetime);
    if (waiter->Wake != nullptr && starter.Start(WaitForEvents, waiter, &waiter->Worker)) {
        waiter->Next = std::exchange(FirstWaiter, waiter);
        return waiter;
    }
    // Never the last holder: the request that needs the thread is one too.
    ReleaseCatalogLifetime(lifetime);
    FreeWaiter(waiter);
    return nullptr;
}

/// A thread that has room for one more request, with a place in it. Null when there is none, nor one to be
/// started.
EventWaiter* TakePlace(CatalogLifetime* lifetime, const ThreadStarter* starter) {
    const Locker lock(OverlappedLock);
    // A clean-up may have overtaken the request; a thread lies in the heap of its manager's catalog.
    const bool stopped = ManagerPort == nullptr && ManagerSemaphore == nullptr;
    if (stopped || lifetime->Heap != PrivateHeap) return nullptr;
    EventWaiter* waiter = FirstWaiter;
    while (waiter != nullptr && waiter->Places == kPlaces)
        waiter = waiter->Next;
    if (waiter == nullptr && starter != nullptr) waiter = StartWaiter(lifetime, *starter);
    if (waiter != nullptr) ++waiter->Places;
    return waiter;
}

EventWaiter* TakePlaceOrStart(CatalogLifetime* lifetime) {
    if (EventWaiter* const waiter = TakePlace(lifetime, nullptr)) return waiter;
    const ThreadStarter starter;
    return TakePlace(lifetime, &starter);
}

/// Leaves a request that is under way to a thread. False when that has ended meanwhile.
bool HandOver(EventWaiter* waiter, OverlappedOperation* operation) {
    const Locker lock(OverlappedLock);
    if (waiter->Ended) return false;
    operation->NextPending = std::exchange(waiter->HandedOver, operation);
    SetEvent(waiter->Wake);
    return true;
}

}  // namespace

Outcome ExecuteByEvent(OverlappedOperation* operation, SocketContext* context) {
    EventWaiter* const waiter = TakePlaceOrStart(operation->Lifetime);
    if (waiter == nullptr) return {0, 0, WSAENOBUFS};
    const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    INT result = WSAENOBUFS;
    if (event != nullptr) {
        // The lowest bit: no port is to be told.
        operation->ProviderOverlapped.hEvent =
            reinterpret_cast<HANDLE>(reinterpret_cast<ULONG_PTR>(event) | ULONG_PTR{1});
        result = CallLowerOverlapped(operation, context, NoticeToPort(operation));
    }
    if (result == WSA_IO_PENDING) {
        if (!HandOver(waiter, operation)) {
            DWORD patience = kCancelMilliseconds;
            GivePlaceBack(waiter);
            EndByCancelling(operation, &patience);
        }
        return {0, 0, WSA_IO_PENDING};
    }
    GivePlaceBack(waiter);
    Outcome outcome = {0, 0, result};
    if (result == 0) {
        outcome = CompleteInsideCall(operation);
        // One that was found to be blocked has been told so; its call is not to tell it again.
        if (outcome.Error != 0) outcome.Error = WSA_IO_PENDING;
    } else {
        operation->ProviderOverlapped.hEvent = nullptr;
    }
    SafeCloseHandle(event);
    return outcome;
}

EventWaiter* TellEventWaitersToEnd() {
    const Locker lock(OverlappedLock);
    EventWaiter* const waiters = std::exchange(FirstWaiter, nullptr);
    for (EventWaiter* waiter = waiters; waiter != nullptr; waiter = waiter->Next) {
        waiter->Stopping = true;
        SetEvent(waiter->Wake);
    }
    return waiters;
}

bool AwaitEventWaiters(EventWaiter* waiters, const StopDeadline& deadline) {
    bool allEnded = true;
    while (waiters != nullptr) {
        EventWaiter* const waiter = std::exchange(waiters, waiters->Next);
        if (!deadline.Await(&waiter->Worker)) {
            allEnded = false;
            continue;
        }
        const Locker lock(OverlappedLock);
        // A request with a place in it may be on its way down yet.
        waiter->Abandoned = waiter->Places > 0;
        if (!waiter->Abandoned) FreeWaiter(waiter);
    }
    return allEnded;
}
