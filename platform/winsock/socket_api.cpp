// Sockets, from their making to their end.
#include <memory>

#include "platform/winsock/catalog.h"
#include "platform/winsock/host.h"
#include "platform/winsock/provider_call.h"

namespace winsock_host {
namespace {

// A provider of system handles makes its sockets known by itself; for one that forgot, Winsock does it.
void MakeKnown(SOCKET s, Provider* provider) {
    if (provider->MakesSystemHandles() && Sockets.Find(s).provider == nullptr)
        Sockets.Add(s, {provider, false}, 0);
}

// The catalog entry that serves a WSASocket call, or null with the error.
Provider* ChooseProvider(int family, int type, int protocol, const DWORD* catalogEntryId, int* error) {
    const std::shared_ptr<const Catalog> catalog = CurrentCatalog();
    *error = WSAEINVAL;
    const CatalogEntry* entry = catalogEntryId != nullptr
                                    ? catalog->FindById(*catalogEntryId)
                                    : catalog->FindBySocketKind(family, type, protocol, error);
    return entry == nullptr ? nullptr : ProviderOfEntry(entry->info.dwCatalogEntryId);
}

// `info` is the caller's, or null.
SOCKET MakeSocket(int family, int type, int protocol, LPWSAPROTOCOL_INFOW info, GROUP group, DWORD flags) {
    CallScope scope;
    if (!IsStarted()) return FailWith(WSANOTINITIALISED, INVALID_SOCKET);
    if (info != nullptr) {
        if (family == FROM_PROTOCOL_INFO) family = info->iAddressFamily;
        if (type == FROM_PROTOCOL_INFO) type = info->iSocketType;
        if (protocol == FROM_PROTOCOL_INFO) protocol = info->iProtocol;
    }
    int error = 0;
    Provider* provider =
        ChooseProvider(family, type, protocol, info != nullptr ? &info->dwCatalogEntryId : nullptr, &error);
    const WSPPROC_TABLE* operations = provider != nullptr ? provider->Operations(&error) : nullptr;
    if (operations == nullptr) return FailWith(error, INVALID_SOCKET);
    WSAPROTOCOL_INFOW entryInfo = provider->info();
    const SOCKET s = CallProvider(*operations, INVALID_SOCKET, [&](const WSPPROC_TABLE& table, LPINT e) {
        return table.lpWSPSocket(family, type, protocol, info != nullptr ? info : &entryInfo, group, flags,
                                 e);
    });
    if (s != INVALID_SOCKET) MakeKnown(s, provider);
    return s;
}

// A socket that another one's provider made.
template <class Operation>
SOCKET CallForSocket(const HostCall& call, SOCKET s, Operation operation) {
    if (call.Fails()) return INVALID_SOCKET;
    CallScope scope;
    const WSPPROC_TABLE* operations = OperationsOf(s);
    if (operations == nullptr) return INVALID_SOCKET;
    Provider* provider = Sockets.Find(s).provider;
    const SOCKET made = CallProvider(*operations, INVALID_SOCKET, operation);
    if (made != INVALID_SOCKET && provider != nullptr) MakeKnown(made, provider);
    return made;
}

}  // namespace

SOCKET WSAAPI HostSocket(int family, int type, int protocol) {
    HostCall call("socket", WSAEMFILE);
    if (call.Fails()) return INVALID_SOCKET;
    return MakeSocket(family, type, protocol, nullptr, 0, WSA_FLAG_OVERLAPPED);
}

SOCKET WSAAPI HostWSASocketW(int family, int type, int protocol, LPWSAPROTOCOL_INFOW info, GROUP group,
                             DWORD flags) {
    HostCall call("WSASocketW", WSAEMFILE);
    if (call.Fails()) return INVALID_SOCKET;
    return MakeSocket(family, type, protocol, info, group, flags);
}

SOCKET WSAAPI HostWSASocketA(int family, int type, int protocol, LPWSAPROTOCOL_INFOA info, GROUP group,
                             DWORD flags) {
    HostCall call("WSASocketA", WSAEMFILE);
    if (call.Fails()) return INVALID_SOCKET;
    if (info == nullptr) return MakeSocket(family, type, protocol, nullptr, group, flags);
    WSAPROTOCOL_INFOW wide = ToWide(*info);
    return MakeSocket(family, type, protocol, &wide, group, flags);
}

int WSAAPI HostCloseSocket(SOCKET s) {
    HostCall call("closesocket", WSAENOTSOCK);
    if (call.Fails()) return SOCKET_ERROR;
    CallScope scope;
    const WSPPROC_TABLE* operations = OperationsOf(s);
    if (operations == nullptr) return SOCKET_ERROR;
    // A layer closes its handle by an upcall. A system handle may be given out anew the moment that it is
    // closed, so it is forgotten before.
    const SocketTable::Owner owner = Sockets.Remove(s, false);
    const int result = CallProvider(*operations, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPCloseSocket(s, error);
    });
    const bool stillOpen = result == SOCKET_ERROR && GetLastError() == WSAEWOULDBLOCK;
    if (owner.provider != nullptr && stillOpen) Sockets.Add(s, owner, 0);
    return result;
}

int WSAAPI HostBind(SOCKET s, const struct sockaddr* name, int nameLength) {
    HostCall call("bind", WSAEADDRINUSE);
    return CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPBind(s, name, nameLength, error);
    });
}

int WSAAPI HostListen(SOCKET s, int backlog) {
    HostCall call("listen", WSAENOBUFS);
    return CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPListen(s, backlog, error);
    });
}

int WSAAPI HostConnect(SOCKET s, const struct sockaddr* name, int nameLength) {
    HostCall call("connect", WSAECONNREFUSED);
    return CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPConnect(s, name, nameLength, nullptr, nullptr, nullptr, nullptr, error);
    });
}

int WSAAPI HostWSAConnect(SOCKET s, const struct sockaddr* name, int nameLength, LPWSABUF callerData,
                          LPWSABUF calleeData, LPQOS socketQos, LPQOS groupQos) {
    HostCall call("WSAConnect", WSAECONNREFUSED);
    return CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPConnect(s, name, nameLength, callerData, calleeData, socketQos, groupQos, error);
    });
}

SOCKET WSAAPI HostAccept(SOCKET s, struct sockaddr* address, int* addressLength) {
    HostCall call("accept", WSAEMFILE);
    return CallForSocket(call, s, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPAccept(s, address, addressLength, nullptr, 0, error);
    });
}

SOCKET WSAAPI HostWSAAccept(SOCKET s, struct sockaddr* address, LPINT addressLength,
                            LPCONDITIONPROC condition, DWORD_PTR callbackData) {
    HostCall call("WSAAccept", WSAEMFILE);
    return CallForSocket(call, s, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPAccept(s, address, addressLength, condition, callbackData, error);
    });
}

SOCKET WSAAPI HostWSAJoinLeaf(SOCKET s, const struct sockaddr* name, int nameLength, LPWSABUF callerData,
                              LPWSABUF calleeData, LPQOS socketQos, LPQOS groupQos, DWORD flags) {
    HostCall call("WSAJoinLeaf", WSAENETDOWN);
    return CallForSocket(call, s, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPJoinLeaf(s, name, nameLength, callerData, calleeData, socketQos, groupQos, flags,
                                   error);
    });
}

int WSAAPI HostShutdown(SOCKET s, int how) {
    HostCall call("shutdown", WSAENOTCONN);
    return CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPShutdown(s, how, error);
    });
}

int WSAAPI HostWSASendDisconnect(SOCKET s, LPWSABUF data) {
    HostCall call("WSASendDisconnect", WSAENOTCONN);
    return CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPSendDisconnect(s, data, error);
    });
}

int WSAAPI HostWSARecvDisconnect(SOCKET s, LPWSABUF data) {
    HostCall call("WSARecvDisconnect", WSAENOTCONN);
    return CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPRecvDisconnect(s, data, error);
    });
}

int WSAAPI HostWSADuplicateSocketW(SOCKET s, DWORD processId, LPWSAPROTOCOL_INFOW info) {
    HostCall call("WSADuplicateSocketW", WSAEMFILE);
    return CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPDuplicateSocket(s, processId, info, error);
    });
}

int WSAAPI HostWSADuplicateSocketA(SOCKET s, DWORD processId, LPWSAPROTOCOL_INFOA info) {
    HostCall call("WSADuplicateSocketA", WSAEMFILE);
    if (info == nullptr) return FailWith(WSAEFAULT, SOCKET_ERROR);
    WSAPROTOCOL_INFOW wide{};
    const int result = CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPDuplicateSocket(s, processId, &wide, error);
    });
    if (result == 0) *info = ToAnsi(wide);
    return result;
}

}  // namespace winsock_host
