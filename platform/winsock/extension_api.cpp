// The extension functions under their own names: each fetches the function of the socket's provider and calls
// it, so a layer sees these calls, too.
#include <atomic>

#include "platform/winsock/catalog.h"
#include "platform/winsock/host.h"
#include "platform/winsock/provider_call.h"

namespace winsock_host {
namespace {

// The provider's function with that id for the socket, or null with the last error set. Within a CallScope.
template <class Function>
Function FetchExtension(SOCKET s, GUID id) {
    const WSPPROC_TABLE* operations = OperationsOf(s);
    if (operations == nullptr) return nullptr;
    Function function = nullptr;
    DWORD returned = 0;
    const int result = CallProvider(*operations, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPIoctl(s, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof(id), &function,
                                sizeof(function), &returned, nullptr, nullptr, nullptr, error);
    });
    if (result == 0 && function != nullptr) return function;
    return result == 0 ? FailWith<Function>(WSAEOPNOTSUPP, nullptr) : nullptr;
}

// The parser of accept buffers, which a call names no socket for: the first base provider's, fetched once per
// session with a socket made for it.
LPFN_GETACCEPTEXSOCKADDRS FetchSockaddrsParser() {
    std::atomic<void*>* remembered = RememberedParser();
    if (remembered == nullptr) return nullptr;
    if (void* parser = remembered->load()) return reinterpret_cast<LPFN_GETACCEPTEXSOCKADDRS>(parser);
    for (const CatalogEntry& entry : CurrentCatalog()->entries) {
        if (entry.info.ProtocolChain.ChainLen != BASE_PROTOCOL) continue;
        WSAPROTOCOL_INFOW info = entry.info;
        const SOCKET s =
            HostWSASocketW(FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, &info, 0, 0);
        if (s == INVALID_SOCKET) return nullptr;
        const auto parser = FetchExtension<LPFN_GETACCEPTEXSOCKADDRS>(s, WSAID_GETACCEPTEXSOCKADDRS);
        HostCloseSocket(s);
        remembered->store(reinterpret_cast<void*>(parser));
        return parser;
    }
    return nullptr;
}

}  // namespace

BOOL WINAPI HostAcceptEx(SOCKET listener, SOCKET accepting, PVOID output, DWORD receiveLength,
                         DWORD localLength, DWORD remoteLength, LPDWORD received, LPOVERLAPPED overlapped) {
    HostCall call("AcceptEx", WSAENOBUFS);
    if (call.Fails()) return FALSE;
    CallScope scope;
    const auto function = FetchExtension<LPFN_ACCEPTEX>(listener, WSAID_ACCEPTEX);
    if (function == nullptr) return FALSE;
    ProviderBoundary boundary;
    return function(listener, accepting, output, receiveLength, localLength, remoteLength, received,
                    overlapped);
}

VOID WINAPI HostGetAcceptExSockaddrs(PVOID output, DWORD receiveLength, DWORD localLength, DWORD remoteLength,
                                     struct sockaddr** local, LPINT localSize, struct sockaddr** remote,
                                     LPINT remoteSize) {
    HostCall call("GetAcceptExSockaddrs", WSAENOBUFS);
    *local = nullptr;
    *remote = nullptr;
    *localSize = 0;
    *remoteSize = 0;
    if (call.Fails()) return;
    CallScope scope;
    const LPFN_GETACCEPTEXSOCKADDRS parser = FetchSockaddrsParser();
    if (parser == nullptr) return;
    ProviderBoundary boundary;
    parser(output, receiveLength, localLength, remoteLength, local, localSize, remote, remoteSize);
}

BOOL WINAPI HostTransmitFile(SOCKET s, HANDLE file, DWORD bytes, DWORD bytesPerSend, LPOVERLAPPED overlapped,
                             LPTRANSMIT_FILE_BUFFERS buffers, DWORD flags) {
    HostCall call("TransmitFile", WSAENOBUFS);
    if (call.Fails()) return FALSE;
    CallScope scope;
    const auto function = FetchExtension<LPFN_TRANSMITFILE>(s, WSAID_TRANSMITFILE);
    if (function == nullptr) return FALSE;
    ProviderBoundary boundary;
    return function(s, file, bytes, bytesPerSend, overlapped, buffers, flags);
}

}  // namespace winsock_host
