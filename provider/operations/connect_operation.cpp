// WSPConnect: where a connection is put before the analyzer. By the verdict the lower socket is connected to
// the destination, to the address that the analyzer named instead, to the relay listener, or not at all.
#include "base/caller_memory.h"
#include "base/trace.h"
#include "provider/catalog/lower_call.h"
#include "provider/contexts/connect_route.h"
#include "provider/operation_failure.h"
#include "provider/operations/operations.h"

namespace {

/// The application's arguments beside the address.
struct ConnectArguments {
    LPWSABUF CallerData;
    LPWSABUF CalleeData;
    LPQOS SendQos;
    LPQOS GroupQos;
};

/// A failure may leave the error at 0.
int ConnectLower(SocketContext* context, const ConnectTarget& target, const ConnectArguments& arguments,
                 LPINT error) {
    LspEntry* const provider = context->Provider;
    *error = 0;
    return RunLowerCall(provider, SOCKET_ERROR, error, [&]() noexcept {
        return provider->LowerProcedures.lpWSPConnect(
            context->ProviderSocket, reinterpret_cast<const sockaddr*>(&target.name), target.length,
            arguments.CallerData, arguments.CalleeData, arguments.SendQos, arguments.GroupQos, error);
    });
}

/// The socket's own name, for the reports and the classification of what it will carry.
void StoreLocalName(SocketContext* context) {
    LspEntry* const provider = context->Provider;
    SOCKADDR_STORAGE name;
    int length = sizeof(name);
    INT ignored = 0;
    const int result = CallLower(provider, SOCKET_ERROR, &ignored, [&]() noexcept {
        return provider->LowerProcedures.lpWSPGetSockName(
            context->ProviderSocket, reinterpret_cast<sockaddr*>(&name), &length, &ignored);
    });
    if (result != SOCKET_ERROR) context->LocalAddress.Store(&name, length);
}

bool IsPending(int error) {
    return error == WSAEWOULDBLOCK || error == WSA_IO_PENDING || error == 0;
}

/// Connects the application's socket to the relay. `*established` tells whether it is connected or on its
/// way. What an earlier connect has split stays so when this one fails.
int ConnectToRelay(SocketContext* context, const ConnectTarget& relay, const ConnectArguments& arguments,
                   bool* established, LPINT error) {
    const int result = ConnectLower(context, relay, arguments, error);
    *established = result != SOCKET_ERROR || IsPending(*error);
    if (result != SOCKET_ERROR) return result;
    // However the lower provider calls it, the application's connect is one that is not done yet.
    if (*established) return FailWithLastError(WSAEWOULDBLOCK, error);
    const int code = *error;
    if (relay.way == ConnectTarget::Way::kToRelayAgain) return FailWithLastError(code, error);
    Trace(
        "ERROR:Failed to connect to the proxy socket. Server socket was also closed. #Details: %s #. "
        "Error:%d\n",
        DescribeContext(context).c_str(), code);
    AbandonSplit(context);
    return FailWithLastError(code, error);
}

}  // namespace

int WSPAPI WSPConnect(SOCKET s, const sockaddr* name, int namelen, LPWSABUF callerData, LPWSABUF calleeData,
                      LPQOS sendQos, LPQOS groupQos, LPINT error) {
    const ContextReference context(s, error);
    if (!context) {
        Trace("WSPConnect: FindAndRefSocketContext failed!");
        return SOCKET_ERROR;
    }
    // The verdict, the report and the connect must all speak of the same address, whatever becomes of the
    // application's memory; and of all of it, so one that doesn't fit is refused.
    ConnectTarget target;
    if (!CopyCallerName(name, namelen, &target.name)) return FailWithLastError(WSAEFAULT, error);
    target.length = namelen;
    constexpr ConnectErrors kErrors = {WSAECONNREFUSED, WSAEFAULT};
    if (const int refusal = RouteConnect(context.Get(), kErrors, &target); refusal != 0) {
        if (target.way == ConnectTarget::Way::kRefused) StoreLocalName(context.Get());
        return FailWithLastError(refusal, error);
    }
    const ConnectArguments arguments = {callerData, calleeData, sendQos, groupQos};
    if (target.way == ConnectTarget::Way::kDirect) {
        const int result = ConnectLower(context.Get(), target, arguments, error);
        if (result == SOCKET_ERROR) *error = LowerError(*error);
        StoreLocalName(context.Get());
        return result;
    }
    bool established = false;
    const int result = ConnectToRelay(context.Get(), target, arguments, &established, error);
    if (established) StoreLocalName(context.Get());
    return result;
}
