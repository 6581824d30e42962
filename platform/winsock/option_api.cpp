// What a socket knows and is told: options, control codes, names.
#include <cstring>

#include "platform/winsock/catalog.h"
#include "platform/winsock/host.h"
#include "platform/winsock/provider_call.h"

namespace winsock_host {
namespace {

// Providers know the wide form of a socket's catalog entry alone.
int GetAnsiProtocolInfo(const HostCall& call, SOCKET s, char* value, int* length) {
    if (value == nullptr || length == nullptr || *length < static_cast<int>(sizeof(WSAPROTOCOL_INFOA))) {
        if (length != nullptr) *length = sizeof(WSAPROTOCOL_INFOA);
        return FailWith(WSAEFAULT, SOCKET_ERROR);
    }
    WSAPROTOCOL_INFOW wide{};
    int wideLength = sizeof(wide);
    const int result = CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPGetSockOpt(s, SOL_SOCKET, SO_PROTOCOL_INFOW, reinterpret_cast<char*>(&wide),
                                     &wideLength, error);
    });
    if (result != 0) return result;
    const WSAPROTOCOL_INFOA ansi = ToAnsi(wide);
    std::memcpy(value, &ansi, sizeof(ansi));
    *length = sizeof(ansi);
    return 0;
}

}  // namespace

int WSAAPI HostWSAIoctl(SOCKET s, DWORD code, LPVOID in, DWORD inLength, LPVOID out, DWORD outLength,
                        LPDWORD returned, LPWSAOVERLAPPED overlapped,
                        LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
    HostCall call("WSAIoctl", WSAEOPNOTSUPP);
    return CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPIoctl(s, code, in, inLength, out, outLength, returned, overlapped, routine,
                                ThreadIdFor(overlapped, routine), error);
    });
}

int WSAAPI HostIoctlSocket(SOCKET s, LONG command, u_long* argument) {
    HostCall call("ioctlsocket", WSAENETDOWN);
    DWORD returned = 0;
    return CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPIoctl(s, static_cast<DWORD>(command), argument, sizeof(*argument), argument,
                                sizeof(*argument), &returned, nullptr, nullptr, nullptr, error);
    });
}

int WSAAPI HostGetSockOpt(SOCKET s, int level, int option, char* value, int* length) {
    HostCall call("getsockopt", WSAENOPROTOOPT);
    if (level == SOL_SOCKET && option == SO_PROTOCOL_INFOA)
        return GetAnsiProtocolInfo(call, s, value, length);
    return CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPGetSockOpt(s, level, option, value, length, error);
    });
}

int WSAAPI HostSetSockOpt(SOCKET s, int level, int option, const char* value, int length) {
    HostCall call("setsockopt", WSAENOPROTOOPT);
    return CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPSetSockOpt(s, level, option, value, length, error);
    });
}

int WSAAPI HostGetPeerName(SOCKET s, struct sockaddr* name, int* nameLength) {
    HostCall call("getpeername", WSAENOTCONN);
    return CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPGetPeerName(s, name, nameLength, error);
    });
}

int WSAAPI HostGetSockName(SOCKET s, struct sockaddr* name, int* nameLength) {
    HostCall call("getsockname", WSAEINVAL);
    return CallOnSocket(call, s, SOCKET_ERROR, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPGetSockName(s, name, nameLength, error);
    });
}

BOOL WSAAPI HostWSAGetQOSByName(SOCKET s, LPWSABUF name, LPQOS qos) {
    HostCall call("WSAGetQOSByName", WSAENETDOWN);
    return CallOnSocket(call, s, BOOL{FALSE}, [&](const WSPPROC_TABLE& table, LPINT error) {
        return table.lpWSPGetQOSByName(s, name, qos, error);
    });
}

}  // namespace winsock_host
