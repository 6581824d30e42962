#include "platform/windows/lower_provider.h"

#include <ws2tcpip.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>

#include "platform/windows/lower_route.h"

namespace lower {

namespace {

struct Provider {
    std::mutex mutex;  // leaf; guards everything here
    int startCount = 0;
    WSPUPCALLTABLE upcalls{};
    std::map<SOCKET, SocketRecord> sockets;
};

Provider& TheProvider() {
    static Provider& provider = *new Provider;
    return provider;
}

/// Makes a socket of the system known here and to Winsock, which may know it under another value.
SOCKET Publish(SOCKET s, const SocketRecord& record) {
    if (s == INVALID_SOCKET) return s;
    LPWPUMODIFYIFSHANDLE modify = nullptr;
    {
        const std::lock_guard<std::mutex> lock(TheProvider().mutex);
        TheProvider().sockets[s] = record;
        modify = TheProvider().upcalls.lpWPUModifyIFSHandle;
    }
    int error = 0;
    const SOCKET known = modify == nullptr ? s : modify(record.info.dwCatalogEntryId, s, &error);
    if (known != INVALID_SOCKET) return known;
    const std::lock_guard<std::mutex> lock(TheProvider().mutex);
    TheProvider().sockets.erase(s);
    closesocket(s);
    return FailWith(error, INVALID_SOCKET);
}

bool Forget(SOCKET s) {
    ForgetNames(s);
    const std::lock_guard<std::mutex> lock(TheProvider().mutex);
    return TheProvider().sockets.erase(s) != 0;
}

// The operations without routes: a fault point, and the system's function.

SOCKET WSPAPI Accept(SOCKET s, sockaddr* name, LPINT length, LPCONDITIONPROC condition, DWORD_PTR data,
                     LPINT error) {
    return Run("lower WSPAccept", WSAENOBUFS, INVALID_SOCKET, error, [&](const PlatformCall&) {
        SocketRecord record;
        if (!FindSocket(s, &record)) return FailWith(WSAENOTSOCK, INVALID_SOCKET);
        return Publish(WSAAccept(s, name, length, condition, data), record);
    });
}

INT WSPAPI AddressToString(LPSOCKADDR address, DWORD addressLength, LPWSAPROTOCOL_INFOW, LPWSTR text,
                           LPDWORD length, LPINT error) {
    return Run("lower WSPAddressToString", WSAENOBUFS, SOCKET_ERROR, error, [&](const PlatformCall&) {
        return WSAAddressToStringW(address, addressLength, nullptr, text, length);
    });
}

INT WSPAPI StringToAddress(LPWSTR text, INT family, LPWSAPROTOCOL_INFOW, LPSOCKADDR address, LPINT length,
                           LPINT error) {
    return Run("lower WSPStringToAddress", WSAENOBUFS, SOCKET_ERROR, error, [&](const PlatformCall&) {
        return WSAStringToAddressW(text, family, nullptr, address, length);
    });
}

int WSPAPI AsyncSelect(SOCKET s, HWND window, unsigned int message, LONG events, LPINT error) {
    return Run("lower WSPAsyncSelect", WSAENETDOWN, SOCKET_ERROR, error,
               [&](const PlatformCall&) { return WSAAsyncSelect(s, window, message, events); });
}

int WSPAPI Bind(SOCKET s, const sockaddr* name, int length, LPINT error) {
    return Run("lower WSPBind", WSAEADDRINUSE, SOCKET_ERROR, error,
               [&](const PlatformCall&) { return bind(s, name, length); });
}

int WSPAPI CancelBlockingCall(LPINT error) {
    return Run("lower WSPCancelBlockingCall", WSAEOPNOTSUPP, SOCKET_ERROR, error,
               [](const PlatformCall&) { return FailWith(WSAEOPNOTSUPP, SOCKET_ERROR); });
}

int WSPAPI CloseSocket(SOCKET s, LPINT error) {
    return Run("lower WSPCloseSocket", WSAENOTSOCK, SOCKET_ERROR, error, [&](const PlatformCall&) {
        return Forget(s) ? closesocket(s) : FailWith(WSAENOTSOCK, SOCKET_ERROR);
    });
}

int WSPAPI DuplicateSocket(SOCKET s, DWORD process, LPWSAPROTOCOL_INFOW info, LPINT error) {
    return Run("lower WSPDuplicateSocket", WSAENOBUFS, SOCKET_ERROR, error, [&](const PlatformCall&) {
        SocketRecord record;
        if (!FindSocket(s, &record)) return FailWith(WSAENOTSOCK, SOCKET_ERROR);
        if (WSADuplicateSocketW(s, process, info) != 0) return SOCKET_ERROR;
        const DWORD ticket = info->dwProviderReserved;
        *info = record.info;
        info->dwProviderReserved = ticket;
        return 0;
    });
}

int WSPAPI EnumNetworkEvents(SOCKET s, WSAEVENT event, LPWSANETWORKEVENTS events, LPINT error) {
    return Run("lower WSPEnumNetworkEvents", WSAENETDOWN, SOCKET_ERROR, error,
               [&](const PlatformCall&) { return WSAEnumNetworkEvents(s, event, events); });
}

int WSPAPI EventSelect(SOCKET s, WSAEVENT event, LONG events, LPINT error) {
    return Run("lower WSPEventSelect", WSAENETDOWN, SOCKET_ERROR, error,
               [&](const PlatformCall&) { return WSAEventSelect(s, event, events); });
}

BOOL WSPAPI GetOverlappedResult(SOCKET s, LPWSAOVERLAPPED overlapped, LPDWORD bytes, BOOL wait, LPDWORD flags,
                                LPINT error) {
    return Run("lower WSPGetOverlappedResult", WSAENETDOWN, FALSE, error, [&](const PlatformCall&) -> BOOL {
        return WSAGetOverlappedResult(s, overlapped, bytes, wait, flags);
    });
}

int WSPAPI GetSockName(SOCKET s, sockaddr* name, LPINT length, LPINT error) {
    return Run("lower WSPGetSockName", WSAENETDOWN, SOCKET_ERROR, error,
               [&](const PlatformCall&) { return getsockname(s, name, length); });
}

int WSPAPI GetSockOpt(SOCKET s, int level, int option, char* value, LPINT length, LPINT error) {
    return Run("lower WSPGetSockOpt", WSAENOBUFS, SOCKET_ERROR, error, [&](const PlatformCall&) {
        SocketRecord record;
        if (level != SOL_SOCKET || option != SO_PROTOCOL_INFOW || !FindSocket(s, &record))
            return getsockopt(s, level, option, value, length);
        if (value == nullptr || length == nullptr || *length < static_cast<int>(sizeof record.info))
            return FailWith(WSAEFAULT, SOCKET_ERROR);
        std::memcpy(value, &record.info, sizeof record.info);
        *length = sizeof record.info;
        return 0;
    });
}

BOOL WSPAPI GetQosByName(SOCKET s, LPWSABUF name, LPQOS qos, LPINT error) {
    return Run("lower WSPGetQOSByName", WSAEOPNOTSUPP, FALSE, error,
               [&](const PlatformCall&) -> BOOL { return WSAGetQOSByName(s, name, qos); });
}

int WSPAPI Ioctl(SOCKET s, DWORD code, LPVOID in, DWORD inLength, LPVOID out, DWORD outLength,
                 LPDWORD returned, LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine,
                 LPWSATHREADID, LPINT error) {
    return Run("lower WSPIoctl", WSAENETDOWN, SOCKET_ERROR, error, [&](const PlatformCall&) {
        if (code == SIO_GET_EXTENSION_FUNCTION_POINTER && in != nullptr && inLength >= sizeof(GUID))
            return GiveExtension(s, *static_cast<const GUID*>(in), out, outLength, returned);
        return WSAIoctl(s, code, in, inLength, out, outLength, returned, overlapped, routine);
    });
}

SOCKET WSPAPI JoinLeaf(SOCKET s, const sockaddr* name, int length, LPWSABUF caller, LPWSABUF callee,
                       LPQOS socketQos, LPQOS groupQos, DWORD flags, LPINT error) {
    return Run("lower WSPJoinLeaf", WSAENOBUFS, INVALID_SOCKET, error, [&](const PlatformCall&) {
        return WSAJoinLeaf(s, name, length, caller, callee, socketQos, groupQos, flags);
    });
}

int WSPAPI Listen(SOCKET s, int backlog, LPINT error) {
    return Run("lower WSPListen", WSAENOBUFS, SOCKET_ERROR, error,
               [&](const PlatformCall&) { return listen(s, backlog); });
}

int WSPAPI Recv(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags,
                LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, LPWSATHREADID,
                LPINT error) {
    return Run("lower WSPRecv", WSAECONNRESET, SOCKET_ERROR, error, [&](const PlatformCall&) {
        return WSARecv(s, buffers, count, received, flags, overlapped, routine);
    });
}

int WSPAPI RecvDisconnect(SOCKET s, LPWSABUF data, LPINT error) {
    return Run("lower WSPRecvDisconnect", WSAENETDOWN, SOCKET_ERROR, error,
               [&](const PlatformCall&) { return WSARecvDisconnect(s, data); });
}

int WSPAPI Send(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, LPWSATHREADID,
                LPINT error) {
    return Run("lower WSPSend", WSAECONNRESET, SOCKET_ERROR, error, [&](const PlatformCall&) {
        return WSASend(s, buffers, count, sent, flags, overlapped, routine);
    });
}

int WSPAPI SendDisconnect(SOCKET s, LPWSABUF data, LPINT error) {
    return Run("lower WSPSendDisconnect", WSAENETDOWN, SOCKET_ERROR, error,
               [&](const PlatformCall&) { return WSASendDisconnect(s, data); });
}

int WSPAPI SetSockOpt(SOCKET s, int level, int option, const char* value, int length, LPINT error) {
    return Run("lower WSPSetSockOpt", WSAENOBUFS, SOCKET_ERROR, error,
               [&](const PlatformCall&) { return setsockopt(s, level, option, value, length); });
}

int WSPAPI Shutdown(SOCKET s, int how, LPINT error) {
    return Run("lower WSPShutdown", WSAENETDOWN, SOCKET_ERROR, error,
               [&](const PlatformCall&) { return shutdown(s, how); });
}

SOCKET WSPAPI Socket(int family, int type, int protocol, LPWSAPROTOCOL_INFOW info, GROUP, DWORD flags,
                     LPINT error) {
    return Run("lower WSPSocket", WSAENOBUFS, INVALID_SOCKET, error, [&](const PlatformCall&) {
        if (info == nullptr) return FailWith(WSAEFAULT, INVALID_SOCKET);
        SocketRecord record;
        record.info = *info;
        record.type = type > 0 ? type : info->iSocketType;
        if (info->dwProviderReserved != 0)  // the other end of a duplication
            return Publish(
                WSASocketW(FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, info, 0, flags),
                record);
        const int wantedFamily = family > 0 ? family : info->iAddressFamily;
        const int wantedProtocol = protocol > 0 ? protocol : info->iProtocol;
        return Publish(WSASocketW(wantedFamily, record.type, wantedProtocol, nullptr, 0, flags), record);
    });
}

// The last clean-up closes what is still open: no socket outlives its provider.
int WSPAPI Cleanup(LPINT error) {
    return Run("lower WSPCleanup", WSAENETDOWN, SOCKET_ERROR, error, [](const PlatformCall&) {
        std::map<SOCKET, SocketRecord> open;
        {
            const std::lock_guard<std::mutex> lock(TheProvider().mutex);
            if (TheProvider().startCount == 0) return FailWith(WSANOTINITIALISED, SOCKET_ERROR);
            if (--TheProvider().startCount == 0) open.swap(TheProvider().sockets);
            if (TheProvider().startCount > 0) return WSACleanup();
        }
        for (const auto& [s, record] : open) {
            ForgetNames(s);
            closesocket(s);
        }
        CloseBlackHoles();
        return WSACleanup();
    });
}

}  // namespace

bool FindSocket(SOCKET s, SocketRecord* record) {
    const std::lock_guard<std::mutex> lock(TheProvider().mutex);
    const auto found = TheProvider().sockets.find(s);
    if (found == TheProvider().sockets.end()) return false;
    *record = found->second;
    return true;
}

}  // namespace lower

extern "C" int WSPAPI WSPStartup(WORD version, LPWSPDATA data, LPWSAPROTOCOL_INFOW, WSPUPCALLTABLE upcalls,
                                 LPWSPPROC_TABLE table) {
    using namespace lower;
    const PlatformCall call("lower WSPStartup", WSASYSNOTREADY);
    if (call.Faulted()) return static_cast<int>(call.error());
    if (LOBYTE(version) < 2) return WSAVERNOTSUPPORTED;
    WSADATA system;
    const int error = WSAStartup(MAKEWORD(2, 2), &system);
    if (error != 0) return error;
    *data = {};
    data->wVersion = data->wHighVersion = MAKEWORD(2, 2);
    constexpr wchar_t kDescription[] = L"Base provider over the system's Winsock";
    std::copy(std::begin(kDescription), std::end(kDescription), data->szDescription);
    *table = {Accept,
              AddressToString,
              AsyncSelect,
              Bind,
              CancelBlockingCall,
              Cleanup,
              CloseSocket,
              Connect,
              DuplicateSocket,
              EnumNetworkEvents,
              EventSelect,
              GetOverlappedResult,
              GetPeerName,
              GetSockName,
              GetSockOpt,
              GetQosByName,
              Ioctl,
              JoinLeaf,
              Listen,
              Recv,
              RecvDisconnect,
              RecvFrom,
              Select,
              Send,
              SendDisconnect,
              SendTo,
              SetSockOpt,
              Shutdown,
              Socket,
              StringToAddress};
    const std::lock_guard<std::mutex> lock(TheProvider().mutex);
    if (TheProvider().startCount++ == 0) TheProvider().upcalls = upcalls;
    return 0;
}
