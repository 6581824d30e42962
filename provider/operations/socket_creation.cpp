// Every way to a new socket for the application: the lower socket, its context and the application's handle
// are made in this order and released in the opposite one when a step fails. A context is filled before its
// handle exists, and joins its entry's list last, since a clean-up on another thread may end it from then on.
#include "base/layer_call.h"
#include "provider/catalog/catalog.h"
#include "provider/catalog/lower_call.h"
#include "provider/contexts/catalog_teardown.h"
#include "provider/contexts/socket_context.h"
#include "provider/operations/operations.h"

namespace {

constexpr int kHighestSocketType = 6;

/// What the application asked for.
struct SocketRequest {
    int Family;
    int Type;
    int Protocol;
    const WSAPROTOCOL_INFOW* Info;
};

bool FamilyFits(const SocketRequest& request, const WSAPROTOCOL_INFOW& lower) {
    return request.Family == AF_UNSPEC || request.Family == lower.iAddressFamily;
}

bool ProtocolFits(const SocketRequest& request, const WSAPROTOCOL_INFOW& lower) {
    return request.Protocol == 0 || request.Protocol == lower.iProtocol || request.Protocol == IPPROTO_RAW ||
           request.Type == SOCK_RAW;
}

/// 0 when family, type and protocol are each served by some entry, else the error of the first that is not.
/// CatalogLock is held.
INT RejectUnserved(const SocketRequest& request) QX_REQUIRES(CatalogLock) {
    bool family = false;
    bool type = false;
    bool protocol = false;
    for (LONG i = 0; i < CatalogCount; ++i) {
        const WSAPROTOCOL_INFOW& lower = CatalogEntries[i].NextProvider;
        family = family || FamilyFits(request, lower);
        type = type || request.Type == lower.iSocketType;
        protocol = protocol || ProtocolFits(request, lower);
    }
    if (!family) return WSAEAFNOSUPPORT;
    if (!type) return WSAESOCKTNOSUPPORT;
    return protocol ? 0 : WSAEPROTONOSUPPORT;
}

/// Whether this entry is the one to make the socket; how much is compared depends on how much the application
/// said.
bool ServesRequest(const SocketRequest& request, const WSAPROTOCOL_INFOW& lower) {
    if (request.Info != nullptr && !SameServiceFlags(request.Info->dwServiceFlags1, lower.dwServiceFlags1))
        return false;
    if (request.Type != lower.iSocketType) return false;
    if (request.Family == AF_UNSPEC) return request.Protocol == 0 || request.Protocol == lower.iProtocol;
    if (request.Family != lower.iAddressFamily) return false;
    const bool protocolCounts =
        request.Protocol != 0 && request.Protocol != IPPROTO_RAW && request.Type != SOCK_RAW;
    return !protocolCounts || request.Protocol == lower.iProtocol;
}

/// The entry for a new socket, kept by the hold, or null with `*error`.
LspEntry* ChooseEntry(const SocketRequest& request, CatalogHold* hold, LPINT error) {
    const Locker lock(CatalogLock);
    hold->Take();
    *error = RejectUnserved(request);
    if (*error != 0) return nullptr;
    for (LONG i = 0; i < CatalogCount; ++i) {
        if (ServesRequest(request, CatalogEntries[i].NextProvider)) return &CatalogEntries[i];
    }
    *error = request.Family == AF_UNSPEC && request.Protocol != 0 ? WSAEPROTOTYPE : WSAEAFNOSUPPORT;
    return nullptr;
}

void CloseLowerSocket(LspEntry* provider, SOCKET lowerSocket) {
    INT ignored = 0;
    CallLower(provider, SOCKET_ERROR, &ignored,
              [&]() noexcept { return provider->LowerProcedures.lpWSPCloseSocket(lowerSocket, &ignored); });
}

/// Takes back a context that the catalog's end overtook before it could join its entry's list. Another thread
/// may have guessed its handle and be using it.
void WithdrawContext(SocketContext* context) {
    const Locker global(qx::GlobalLock);
    context->RefCount.Decrement();
    GiveUpContext(context);
}

/// Gives the application a handle for a lower socket: context, `fill(context)`, handle, list. On failure the
/// lower socket is closed and nothing stays.
template <class Fill>
SOCKET PublishSocket(LspEntry* provider, SOCKET lowerSocket, const SocketContext* inheritFrom, LPINT error,
                     Fill fill) {
    SocketContext* const context = CreateSocketContext(provider, lowerSocket, inheritFrom, false, error);
    if (context == nullptr) {
        CloseLowerSocket(provider, lowerSocket);
        return INVALID_SOCKET;
    }
    fill(context);
    // From here on a thread that guesses the handle can use the socket, and close it.
    context->RefCount.Increment();
    const SOCKET handle = UpcallTable.lpWPUCreateSocketHandle(provider->LayerProvider.dwCatalogEntryId,
                                                              reinterpret_cast<DWORD_PTR>(context), error);
    if (handle == INVALID_SOCKET) {
        CloseLowerSocket(provider, lowerSocket);
        FreeSocketContext(context);
        return INVALID_SOCKET;
    }
    context->LayeredSocket = handle;
    INT ignored = 0;
    if (InsertSocketContext(provider, context)) {
        DerefSocketContext(context, &ignored);
        return handle;
    }
    const SOCKET unlisted = context->ProviderSocket.Exchange(INVALID_SOCKET);
    if (unlisted != INVALID_SOCKET) CloseLowerSocket(provider, unlisted);
    WithdrawContext(context);
    *error = WSANOTINITIALISED;
    return INVALID_SOCKET;
}

/// A socket that came out of another one of the application's.
SOCKET PublishDerivedSocket(SocketContext* parent, SOCKET lowerSocket, LPINT error) {
    return PublishSocket(parent->Provider, lowerSocket, parent, error, [](SocketContext*) {});
}

/// An argument of WSPSocket: what the application left open, or said to take from the catalog, is the chosen
/// entry's.
int Effective(int argument, int chosen) {
    return argument == 0 || argument == FROM_PROTOCOL_INFO ? chosen : argument;
}

}  // namespace

SOCKET WSPAPI WSPSocket(int family, int type, int protocol, LPWSAPROTOCOL_INFOW info, GROUP group,
                        DWORD flags, LPINT error) {
    WSAPROTOCOL_INFOW given;
    if (info != nullptr) {
        if (!GuardedCall([&]() noexcept { given = *info; })) {
            *error = WSAEFAULT;
            return INVALID_SOCKET;
        }
        info = &given;
    }
    SocketRequest request = {family, type, protocol, info};
    if (info != nullptr) request = {given.iAddressFamily, given.iSocketType, given.iProtocol, info};
    CatalogHold hold;
    LspEntry* const provider = ChooseEntry(request, &hold, error);
    if (provider == nullptr || EnsureProviderStarted(provider, info, error) != 0) return INVALID_SOCKET;

    // A duplicated socket's reserved value goes down whatever else does.
    WSAPROTOCOL_INFOW lowerInfo =
        provider->LowerIsLayered() && info != nullptr ? given : provider->NextProvider;
    if (info != nullptr) lowerInfo.dwProviderReserved = given.dwProviderReserved;
    // Always overlapped, so that the layer can put any request of its own on the socket.
    const SOCKET lowerSocket = CallLower(provider, INVALID_SOCKET, error, [&]() noexcept {
        return provider->LowerProcedures.lpWSPSocket(family, type, protocol, &lowerInfo, group,
                                                     flags | WSA_FLAG_OVERLAPPED, error);
    });
    if (lowerSocket == INVALID_SOCKET) return INVALID_SOCKET;

    const WSAPROTOCOL_INFOW& chosen = provider->NextProvider;
    return PublishSocket(provider, lowerSocket, nullptr, error, [&](SocketContext* context) {
        context->AddressFamily = Effective(family, chosen.iAddressFamily);
        const int socketType = Effective(type, chosen.iSocketType);
        context->SocketType = socketType < kHighestSocketType ? socketType : kHighestSocketType;
        context->SocketProtocol = Effective(protocol, chosen.iProtocol);
        context->OwnedByLayer = LayerCall::MakesSocket();
        context->Own = context->OwnedByLayer || context->AddressFamily != AF_INET ? TRUE : FALSE;
        context->SocketGroup = group;
        context->SocketFlags = flags;
    });
}

SOCKET WSPAPI WSPAccept(SOCKET s, sockaddr* address, LPINT addressLength, LPCONDITIONPROC condition,
                        DWORD_PTR callbackData, LPINT error) {
    const ContextReference context(s, error);
    if (!context) return INVALID_SOCKET;
    const SocketArrival arrival(context.Get());
    LspEntry* const provider = context->Provider;
    const SOCKET lowerSocket = CallLower(provider, INVALID_SOCKET, error, [&]() noexcept {
        return provider->LowerProcedures.lpWSPAccept(context->ProviderSocket, address, addressLength,
                                                     condition, callbackData, error);
    });
    if (lowerSocket == INVALID_SOCKET) return INVALID_SOCKET;
    return PublishDerivedSocket(context.Get(), lowerSocket, error);
}

SOCKET WSPAPI WSPJoinLeaf(SOCKET s, const sockaddr* name, int namelen, LPWSABUF callerData,
                          LPWSABUF calleeData, LPQOS sendQos, LPQOS groupQos, DWORD flags, LPINT error) {
    const ContextReference context(s, error);
    if (!context) return INVALID_SOCKET;
    const SocketArrival arrival(context.Get());
    LspEntry* const provider = context->Provider;
    const SOCKET socketOfRoot = context->ProviderSocket;
    const SOCKET lowerSocket = CallLower(provider, INVALID_SOCKET, error, [&]() noexcept {
        return provider->LowerProcedures.lpWSPJoinLeaf(socketOfRoot, name, namelen, callerData, calleeData,
                                                       sendQos, groupQos, flags, error);
    });
    if (lowerSocket == INVALID_SOCKET) return INVALID_SOCKET;
    if (lowerSocket == socketOfRoot) return s;
    return PublishDerivedSocket(context.Get(), lowerSocket, error);
}

int WSPAPI WSPDuplicateSocket(SOCKET s, DWORD processId, LPWSAPROTOCOL_INFOW info, LPINT error) {
    const ContextReference context(s, error);
    if (!context) return SOCKET_ERROR;
    LspEntry* const provider = context->Provider;
    return CallLower(provider, SOCKET_ERROR, error, [&]() noexcept {
        const int result =
            provider->LowerProcedures.lpWSPDuplicateSocket(context->ProviderSocket, processId, info, error);
        if (result == SOCKET_ERROR) return result;
        // The target process must come to this layer, which then hands the lower provider's value down.
        const DWORD reserved = info->dwProviderReserved;
        *info = provider->LayerProvider;
        info->dwProviderReserved = reserved;
        return result;
    });
}
