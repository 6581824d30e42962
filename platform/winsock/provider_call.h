// The way of every call on a socket: fault point, the socket's provider, the provider's operation, the last
// error.
#pragma once

#include <winsock2.h>

#include <ws2spi.h>

#include <windows.h>

#include "platform/winsock/host_seam.h"
#include "platform/winsock/provider.h"
#include "platform/winsock/socket_table.h"
#include "platform/winsock/thread_record.h"

namespace winsock_host {

/// Sets the last error and gives `failure` back.
template <class Result>
Result FailWith(int error, Result failure) {
    SetLastError(static_cast<DWORD>(error));
    return failure;
}

/// The operations of the socket's provider, or null with the last error set. Valid within a CallScope.
inline const WSPPROC_TABLE* OperationsOf(SOCKET s) noexcept {
    if (!IsStarted()) return FailWith<const WSPPROC_TABLE*>(WSANOTINITIALISED, nullptr);
    Provider* provider = Sockets.Find(s).provider;
    if (provider == nullptr) return FailWith<const WSPPROC_TABLE*>(WSAENOTSOCK, nullptr);
    int error = 0;
    const WSPPROC_TABLE* operations = provider->Operations(&error);
    return operations != nullptr ? operations : FailWith<const WSPPROC_TABLE*>(error, nullptr);
}

/// Runs `operation(operations, &error)` as a call into a provider; its result, with the last error set when
/// that is `failure`.
template <class Result, class Operation>
Result CallProvider(const WSPPROC_TABLE& operations, Result failure, Operation operation) {
    int error = 0;
    Result result = failure;
    {
        ProviderBoundary boundary;
        result = operation(operations, &error);
    }
    return result == failure ? FailWith(error, failure) : result;
}

/// The same for the provider of `s`; `failure` without one or when `call` is to fail.
template <class Result, class Operation>
Result CallOnSocket(const HostCall& call, SOCKET s, Result failure, Operation operation) {
    if (call.Fails()) return failure;
    CallScope scope;
    const WSPPROC_TABLE* operations = OperationsOf(s);
    return operations == nullptr ? failure : CallProvider(*operations, failure, operation);
}

/// The calling thread's id for a request with `overlapped`; other calls need none.
inline LPWSATHREADID ThreadIdFor(const OVERLAPPED* overlapped,
                                 LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) noexcept {
    return overlapped != nullptr ? CurrentThreadId(routine != nullptr) : nullptr;
}

}  // namespace winsock_host
