// WSPConnect: where a connection is put before the analyzer. By the verdict the lower socket is connected to
// the destination, to the address that the analyzer named instead, to the relay listener, or not at all.
#include "base/caller_memory.h"
#include "base/trace.h"
#include "provider/catalog/lower_call.h"
#include "provider/contexts/socket_context.h"
#include "provider/interception.h"
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

int ConnectLower(SocketContext* context, const SOCKADDR_STORAGE& target, int targetLength,
                 const ConnectArguments& arguments, LPINT error) {
    LspEntry* const provider = context->Provider;
    return CallLower(provider, SOCKET_ERROR, error, [&]() noexcept {
        return provider->LowerProcedures.lpWSPConnect(
            context->ProviderSocket, reinterpret_cast<const sockaddr*>(&target), targetLength,
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

/// Connects the application's socket through the relay. `*established` tells whether it is connected or on
/// its way.
int ConnectSplit(SOCKET s, SocketContext* context, const sockaddr* name, int namelen,
                 const ConnectArguments& arguments, bool* established, LPINT error) {
    *established = false;
    ConnectTarget target;
    int targetLength = namelen;
    if (!SplitConnection(s, context, name, namelen, &target, &targetLength)) {
        Trace(
            "ERROR:Failed to connect the server socket in ConnectEx after splitting sockets.#Details: %s #\n",
            DescribeContext(context).c_str());
        AbandonSplit(s, context);
        return FailWithLastError(WSAEFAULT, error);
    }
    *error = 0;
    const int result = ConnectLower(context, target.name, targetLength, arguments, error);
    *established = result != SOCKET_ERROR || IsPending(*error);
    if (result != SOCKET_ERROR) return result;
    // However the lower provider calls it, the application's connect is one that is not done yet.
    if (*established) return FailWithLastError(WSAEWOULDBLOCK, error);
    const int code = *error;
    Trace(
        "ERROR:Failed to connect to the proxy socket. Server socket was also closed. #Details: %s #. "
        "Error:%d\n",
        DescribeContext(context).c_str(), code);
    AbandonSplit(s, context);
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
    SOCKADDR_STORAGE destination;
    if (!CopyCallerName(name, namelen, &destination)) return FailWithLastError(WSAEFAULT, error);
    context->DestinationAddressLength = namelen;
    context->DestinationAddress.Store(&destination, namelen);

    const auto* const asked = reinterpret_cast<const sockaddr*>(&destination);
    ConnectTarget target;
    target.name = destination;
    int targetLength = namelen;
    AskConnectVerdict(context.Get(), asked, namelen, &target, &targetLength);

    const ConnectArguments arguments = {callerData, calleeData, sendQos, groupQos};
    // Not by `Blocked` and `RelayWanted`, which another thread's connect of the same socket may have changed.
    if (target.way == ConnectTarget::Way::kRefused) {
        StoreLocalName(context.Get());
        return FailWithLastError(WSAECONNREFUSED, error);
    }
    if (target.way == ConnectTarget::Way::kDirect) {
        const int result = ConnectLower(context.Get(), target.name, targetLength, arguments, error);
        StoreLocalName(context.Get());
        return result;
    }
    bool established = false;
    const int result = ConnectSplit(s, context.Get(), asked, namelen, arguments, &established, error);
    if (established) StoreLocalName(context.Get());
    return result;
}
