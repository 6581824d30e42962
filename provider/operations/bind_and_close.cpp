// WSPBind and WSPCloseSocket. Closing only marks the context and closes the lower socket; the last user of
// the context frees it, be that this call, another thread's, or the completion of an overlapped operation.
#include "base/caller_memory.h"
#include "provider/catalog/lower_call.h"
#include "provider/contexts/lower_socket_use.h"
#include "provider/contexts/socket_context.h"
#include "provider/interception.h"
#include "provider/operation_failure.h"
#include "provider/operations/operations.h"

namespace {

/// Marks the context as closing; false when somebody closed it before.
bool ClaimClose(SocketContext* context) {
    const Locker global(qx::GlobalLock);
    if (!AcquireSocketLock(context)) return false;
    const bool claimed = !context->Closing;
    context->Closing = TRUE;
    ReleaseSocketLock(context);
    return claimed;
}

int CloseLower(SocketContext* context, LPINT error) {
    AwaitLowerSocketUses(context);
    LspEntry* const provider = context->Provider;
    // The lower provider may linger; it is called without a lock, and by one thread, which has the socket for
    // itself.
    const SOCKET lowerSocket = context->ProviderSocket.Exchange(INVALID_SOCKET);
    const int result = CallLower(provider, SOCKET_ERROR, error, [&]() noexcept {
        return provider->LowerProcedures.lpWSPCloseSocket(lowerSocket, error);
    });
    if (result == SOCKET_ERROR) context->ProviderSocket = lowerSocket;
    return result;
}

}  // namespace

int WSPAPI WSPBind(SOCKET s, const sockaddr* name, int namelen, LPINT error) {
    const ContextReference context(s, error);
    if (!context) return SOCKET_ERROR;
    SOCKADDR_STORAGE address;
    if (name != nullptr && !CopyCallerName(name, namelen, &address)) return Fail(WSAEFAULT, error);
    const auto* const asked = name != nullptr ? reinterpret_cast<const sockaddr*>(&address) : nullptr;
    NotifyBind(context.Get(), asked, namelen);
    if (context->Blocked) return FailWithLastError(WSAECONNABORTED, error);
    LspEntry* const provider = context->Provider;
    return CallLower(provider, SOCKET_ERROR, error, [&]() noexcept {
        return provider->LowerProcedures.lpWSPBind(context->ProviderSocket, asked, namelen, error);
    });
}

int WSPAPI WSPCloseSocket(SOCKET s, LPINT error) {
    SocketContext* const context = FindAndRefSocketContext(s, error);
    if (context == nullptr) return SOCKET_ERROR;
    NotifyClose(context);

    INT ignored = 0;
    if (!ClaimClose(context)) {
        DerefSocketContext(context, &ignored);
        return Fail(WSAENOTSOCK, error);
    }
    AbandonWaits(context);
    const int result = CloseLower(context, error);
    if (result == SOCKET_ERROR) {
        // Still open, and the application may try again.
        context->Closing = FALSE;
        DerefSocketContext(context, &ignored);
        return result;
    }
    return DerefSocketContext(context, error) ? 0 : SOCKET_ERROR;
}
