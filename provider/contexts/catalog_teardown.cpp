// See catalog_teardown.h.
#include "provider/contexts/catalog_teardown.h"

#include "provider/catalog/catalog.h"
#include "provider/catalog/lower_call.h"
#include "provider/contexts/handle_locks.h"
#include "provider/contexts/socket_context.h"
#include "provider/guarded_sockets.h"
#include "provider/process_state.h"

namespace {

/// Closes a lower socket so that nothing of it lingers.
void CloseLowerSocketHard(LspEntry* provider, SOCKET lowerSocket) {
    INT error = 0;
    const LINGER hard = {1, 0};
    const WSPPROC_TABLE& lower = provider->LowerProcedures;
    const int result = CallLower(provider, SOCKET_ERROR, &error, [&]() noexcept {
        return lower.lpWSPSetSockOpt(lowerSocket, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&hard),
                                     sizeof(hard), &error);
    });
    // A datagram socket knows no lingering and is closed all the same; a socket that is no more is not.
    if (result == SOCKET_ERROR && error == WSAENOTSOCK) return;
    CallLower(provider, SOCKET_ERROR, &error,
              [&]() noexcept { return lower.lpWSPCloseSocket(lowerSocket, &error); });
}

/// Takes the first context off an entry that is being given up; null when none is left.
SocketContext* TakeFirstContext(LspEntry* provider) {
    const Locker lock(provider->ListLock);
    provider->Closed = true;
    SocketContext* const context = provider->FirstSocket;
    if (context == nullptr) return nullptr;
    provider->FirstSocket = context->Link.Next;
    (provider->FirstSocket != nullptr ? provider->FirstSocket->Link.Previous : provider->LastSocket) =
        nullptr;
    return context;
}

}  // namespace

void GiveUpContext(SocketContext* context) {
    const SOCKET handle = context->LayeredSocket;
    const Locker lock(GroupOf(handle).Lock);
    INT ignored = 0;
    UpcallTable.lpWPUCloseSocketHandle(handle, &ignored);
    if (context->RefCount == 0) {
        FreeSocketContext(context);
        return;
    }
    CatalogLifetime* const lifetime = context->Provider->Lifetime;
    HoldCatalogLifetime(lifetime);
    context->Abandoned = lifetime;
    context->LayeredSocket = INVALID_SOCKET;
}

void CloseProviderSockets(LspEntry* provider, bool detaching) {
    while (SocketContext* const context = TakeFirstContext(provider)) {
        const SOCKET lowerSocket = context->ProviderSocket.Exchange(INVALID_SOCKET);
        if (lowerSocket != INVALID_SOCKET && !(detaching && provider->LowerIsLayered())) {
            CloseLowerSocketHard(provider, lowerSocket);
        }
        GiveUpContext(context);
    }
}

bool FreeLspCatalog(bool detaching, LPINT error) {
    CatalogLifetime* lifetime;
    {
        const Locker lock(CatalogLock);
        for (LONG i = 0; i < CatalogCount; ++i) {
            CloseProviderSockets(&CatalogEntries[i], detaching);
            CleanUpLowerProvider(&CatalogEntries[i], detaching, error);
        }
        const AllHandleGroups groups;
        lifetime = DetachCatalog();
    }
    SafeCloseHandle(ContextAddedEvent.Exchange(nullptr));
    return ReleaseCatalogLifetime(lifetime);
}
