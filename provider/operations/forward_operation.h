// The operations that only go down: find the context, keep it, call the lower provider with the lower socket.
#pragma once

#include <winsock2.h>

#include "provider/catalog/lower_call.h"
#include "provider/contexts/socket_context.h"

/// The common shape of a forwarded operation: finds the socket's context and runs
/// `call(lower procedure table, lower socket)` with a reference held. Returns the lower result unchanged.
template <class Call>
int ForwardOperation(SOCKET s, LPINT error, Call call) {
    const ContextReference context(s, error);
    if (!context) return SOCKET_ERROR;
    LspEntry* const provider = context->Provider;
    const SOCKET lowerSocket = context->ProviderSocket;
    return CallLower(provider, SOCKET_ERROR, error,
                     [&]() noexcept { return call(provider->LowerProcedures, lowerSocket); });
}
