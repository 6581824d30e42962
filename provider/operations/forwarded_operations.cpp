// The operations that only put the lower socket in place of the application's.
#include "provider/operation_failure.h"
#include "provider/operations/forward_operation.h"
#include "provider/operations/operations.h"

int WSPAPI WSPEnumNetworkEvents(SOCKET s, WSAEVENT event, LPWSANETWORKEVENTS networkEvents, LPINT error) {
    return ForwardOperation(s, error, [&](const WSPPROC_TABLE& lower, SOCKET lowerSocket) {
        return lower.lpWSPEnumNetworkEvents(lowerSocket, event, networkEvents, error);
    });
}

int WSPAPI WSPEventSelect(SOCKET s, WSAEVENT event, LONG networkEvents, LPINT error) {
    return ForwardOperation(s, error, [&](const WSPPROC_TABLE& lower, SOCKET lowerSocket) {
        return lower.lpWSPEventSelect(lowerSocket, event, networkEvents, error);
    });
}

int WSPAPI WSPGetSockName(SOCKET s, sockaddr* name, LPINT namelen, LPINT error) {
    return ForwardOperation(s, error, [&](const WSPPROC_TABLE& lower, SOCKET lowerSocket) {
        return lower.lpWSPGetSockName(lowerSocket, name, namelen, error);
    });
}

BOOL WSPAPI WSPGetQOSByName(SOCKET s, LPWSABUF qosName, LPQOS qos, LPINT error) {
    // The one operation that fails with FALSE.
    const ContextReference context(s, error);
    if (!context) return FALSE;
    LspEntry* const provider = context->Provider;
    return CallLower(provider, BOOL{FALSE}, error, [&]() noexcept {
        return provider->LowerProcedures.lpWSPGetQOSByName(context->ProviderSocket, qosName, qos, error);
    });
}

int WSPAPI WSPListen(SOCKET s, int backlog, LPINT error) {
    return ForwardOperation(s, error, [&](const WSPPROC_TABLE& lower, SOCKET lowerSocket) {
        return lower.lpWSPListen(lowerSocket, backlog, error);
    });
}

int WSPAPI WSPRecvDisconnect(SOCKET s, LPWSABUF inboundData, LPINT error) {
    return ForwardOperation(s, error, [&](const WSPPROC_TABLE& lower, SOCKET lowerSocket) {
        return lower.lpWSPRecvDisconnect(lowerSocket, inboundData, error);
    });
}

int WSPAPI WSPSendDisconnect(SOCKET s, LPWSABUF outboundData, LPINT error) {
    return ForwardOperation(s, error, [&](const WSPPROC_TABLE& lower, SOCKET lowerSocket) {
        return lower.lpWSPSendDisconnect(lowerSocket, outboundData, error);
    });
}

int WSPAPI WSPShutdown(SOCKET s, int how, LPINT error) {
    return ForwardOperation(s, error, [&](const WSPPROC_TABLE& lower, SOCKET lowerSocket) {
        return lower.lpWSPShutdown(lowerSocket, how, error);
    });
}

int WSPAPI WSPCancelBlockingCall(LPINT error) {
    if (ThreadSlot == TLS_OUT_OF_INDEXES) return 0;
    auto* const provider = static_cast<LspEntry*>(TlsGetValue(ThreadSlot));
    if (provider == nullptr) return 0;
    // A plain guard: the slot belongs to the call that is to be cancelled.
    int result = SOCKET_ERROR;
    *error = 0;
    if (!GuardedCall([&]() noexcept { result = provider->LowerProcedures.lpWSPCancelBlockingCall(error); }))
        *error = WSAEFAULT;
    if (result == SOCKET_ERROR) *error = LowerError(*error);
    return result;
}
