// Making, finding, counting and freeing contexts. One place decides that a context ends: DerefSocketContext,
// under GlobalLock.
#include "provider/contexts/socket_context.h"

#include <guarded_call.h>

#include <new>

#include "base/layer_call.h"
#include "base/trace.h"
#include "provider/catalog/catalog.h"
#include "provider/contexts/handle_locks.h"
#include "provider/guarded_sockets.h"

static_assert(sizeof(SocketContext) <= 1024, "a context costs at most 1 KiB");

namespace {

/// What remains to be done for a context that ended, once every lock has been left.
struct EndedContext {
    SOCKET SpySocket = INVALID_SOCKET;
    CatalogLifetime* Lifetime = nullptr;
    bool Succeeded = true;
};

/// Ends a closing context whose last reference is gone. GlobalLock is held.
EndedContext EndContext(SocketContext* context, LPINT error) {
    EndedContext ended;
    if (context->Abandoned != nullptr) {
        ended.Lifetime = context->Abandoned;
    } else {
        ended.SpySocket = DetachSpySocket(context);
        ended.Succeeded = UpcallTable.lpWPUCloseSocketHandle(context->LayeredSocket, error) != SOCKET_ERROR;
        // A handle that Winsock did not take back still leads here: the context stays for it, closed, and the
        // next use of the handle, or the last clean-up, ends it.
        if (!ended.Succeeded) return ended;
        context->LayeredSocket = INVALID_SOCKET;
        RemoveSocketContext(context->Provider, context);
    }
    FreeSocketContext(context);
    return ended;
}

/// Drops a reference, unless the context may end with it. Whoever lets it end sets Closing or Abandoned
/// before it drops its own reference, or with the lock of the handle's group held.
bool DropReferenceOfLiving(SocketContext* context) {
    const SOCKET handle = context->LayeredSocket;
    // A clean-up has taken it away, under a lock that is not known any more.
    if (handle == INVALID_SOCKET) return false;
    const Locker lock(GroupOf(handle).Lock);
    // The clean-up takes the handle away, and then it is another group's lock that counts.
    if (context->LayeredSocket != handle || context->Closing || context->Abandoned != nullptr) return false;
    context->RefCount.Decrement();
    return true;
}

// The two halves of a hold whose ends lie in different functions.
void EnterUnchecked(CriticalSection& lock) QX_NO_THREAD_SAFETY_ANALYSIS {
    lock.Enter();
}
void LeaveUnchecked(CriticalSection& lock) QX_NO_THREAD_SAFETY_ANALYSIS {
    lock.Leave();
}

}  // namespace

SocketContext* CreateSocketContext(LspEntry* provider, SOCKET providerSocket,
                                   const SocketContext* inheritFrom, bool insert, LPINT error) {
    const HANDLE heap = provider->Lifetime->Heap;
    void* const memory = HeapAlloc(heap, HEAP_ZERO_MEMORY, sizeof(SocketContext));
    if (memory == nullptr) {
        *error = WSAENOBUFS;
        return nullptr;
    }
    auto* const context = new (memory) SocketContext();
    if (!GuardedCall([&]() noexcept { context->Lock.Initialize(); })) {
        HeapFree(heap, 0, memory);
        *error = WSAENOBUFS;
        return nullptr;
    }
    context->ProviderSocket = providerSocket;
    context->Provider = provider;
    context->SpySocket = INVALID_SOCKET;
    if (inheritFrom != nullptr && inheritFrom->AsyncWindow != nullptr) {
        const Locker lock(qx::GlobalLock);
        context->AsyncWindow = static_cast<HWND>(inheritFrom->AsyncWindow);
        context->AsyncMessage = static_cast<UINT>(inheritFrom->AsyncMessage);
    }
    if (insert && !InsertSocketContext(provider, context)) {
        FreeSocketContext(context);
        *error = WSANOTINITIALISED;
        return nullptr;
    }
    return context;
}

void FreeSocketContext(SocketContext* context) {
    if (context == nullptr) return;
    if (AcquireSocketLock(context)) {
        context->Dead = TRUE;
        ReleaseSocketLock(context);
    }
    context->Lock.Delete();
    const HANDLE heap = context->Provider->Lifetime->Heap;
    context->~SocketContext();
    HeapFree(heap, 0, context);
}

bool InsertSocketContext(LspEntry* provider, SocketContext* context) {
    const Locker lock(provider->ListLock);
    if (provider->Closed) return false;
    context->Link.Previous = provider->LastSocket;
    context->Link.Next = nullptr;
    (provider->LastSocket != nullptr ? provider->LastSocket->Link.Next : provider->FirstSocket) = context;
    provider->LastSocket = context;
    SetEvent(ContextAddedEvent);
    return true;
}

void RemoveSocketContext(LspEntry* provider, SocketContext* context) {
    const Locker lock(provider->ListLock);
    SocketContext* const next = context->Link.Next;
    SocketContext* const previous = context->Link.Previous;
    (previous != nullptr ? previous->Link.Next : provider->FirstSocket) = next;
    (next != nullptr ? next->Link.Previous : provider->LastSocket) = previous;
    context->Link.Next = context->Link.Previous = nullptr;
}

SocketContext* FindAndRefSocketContext(SOCKET s, LPINT error) {
    DWORD_PTR value = 0;
    INT ignored = 0;
    const Locker lock(GroupOf(s).Lock);
    // Without a catalog there is no socket of ours, and perhaps no upcall table yet.
    if (PrivateHeap == nullptr ||
        UpcallTable.lpWPUQuerySocketHandleContext(s, &value, &ignored) == SOCKET_ERROR || value == 0) {
        *error = WSAENOTSOCK;
        return nullptr;
    }
    auto* const context = reinterpret_cast<SocketContext*>(value);
    if (context->OwnedByLayer && !LayerCall::IsUnderWay()) {
        *error = WSAENOTSOCK;
        return nullptr;
    }
    // Whoever made the handle may not have come to store it yet.
    context->LayeredSocket = s;
    context->RefCount.Increment();
    return context;
}

bool DerefSocketContext(SocketContext* context, LPINT error) {
    if (context == nullptr || DropReferenceOfLiving(context)) return true;
    EndedContext ended;
    {
        const Locker lock(qx::GlobalLock);
        const Locker handle(GroupOf(context->LayeredSocket).Lock);
        if (context->RefCount.Decrement() > 0) return true;
        const bool ends =
            context->Abandoned != nullptr || (context->Closing && context->OutstandingAsync == 0);
        if (!ends) return true;
        ended = EndContext(context, error);
    }
    const DWORD lastError = GetLastError();
    SafeCloseSocket(ended.SpySocket);
    ReleaseCatalogLifetime(ended.Lifetime);
    SetLastError(lastError);
    return ended.Succeeded;
}

SOCKET DetachSpySocket(SocketContext* context) {
    return context->SpySocket.Exchange(INVALID_SOCKET);
}

bool AcquireSocketLock(SocketContext* context) {
    if (context == nullptr || context->Dead) return false;
    return GuardedCall([&]() noexcept { EnterUnchecked(context->Lock); });
}

void ReleaseSocketLock(SocketContext* context) {
    GuardedCall([&]() noexcept { LeaveUnchecked(context->Lock); });
}

SocketContext* FindSocketContextByProviderSocket(LspEntry* provider, SOCKET providerSocket) {
    const Locker global(qx::GlobalLock);
    if (provider != nullptr) {
        const Locker list(provider->ListLock);
        SocketContext* context = provider->FirstSocket;
        while (context != nullptr && context->ProviderSocket != providerSocket)
            context = context->Link.Next;
        return context;
    }
    const Locker catalog(CatalogLock);
    for (LONG i = 0; i < CatalogCount; ++i) {
        SocketContext* const context = FindSocketContextByProviderSocket(&CatalogEntries[i], providerSocket);
        if (context != nullptr) return context;
    }
    return nullptr;
}

bool IsSocketArriving() {
    const Locker global(qx::GlobalLock);
    const Locker catalog(CatalogLock);
    for (LONG i = 0; i < CatalogCount; ++i) {
        const Locker list(CatalogEntries[i].ListLock);
        for (const SocketContext* context = CatalogEntries[i].FirstSocket; context != nullptr;
             context = context->Link.Next) {
            if (context->AsyncWindow != nullptr && context->Arrivals.Acquire() != 0) return true;
        }
    }
    return false;
}

void MarkSocketAsOwn(SOCKET s, DWORD relayIndex) {
    INT error = 0;
    const LayerCall call;
    const ContextReference context(s, &error);
    if (!context) {
        Trace("ERROR:Failed to mark socket %d as own. No socket context found. Relay index = %d\n",
              static_cast<int>(s), static_cast<int>(relayIndex));
        return;
    }
    context->Own = TRUE;
    if (relayIndex != 0) context->RelayIndex = relayIndex;
}

bool IsSocketExempt(const SocketContext* context) {
    return IsProcessExempt() || context == nullptr || context->Own || context->LocalDestination || OwnProcess;
}
