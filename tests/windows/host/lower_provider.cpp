// The operations over the system's Winsock, and the entry point.
#include "tests/windows/host/lower_provider.h"

#include <ws2tcpip.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <map>
#include <mutex>

#include "platform/winsock/socket_table.h"
#include "tests/windows/host/lower_route.h"

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

/// Before the handle is closed: its value may be given out anew at once. A layer's call comes here without
/// Winsock, which then still knows it.
bool Forget(SOCKET s) {
    ForgetNames(s);
    winsock_host::Sockets.Remove(s, false);
    const std::lock_guard<std::mutex> lock(TheProvider().mutex);
    return TheProvider().sockets.erase(s) != 0;
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
    Forget(s);
    closesocket(s);
    return FailWith(error, INVALID_SOCKET);
}

// Wine ends what is pending on a closed socket late, or with a status that Windows has not: so it is
// cancelled. The socket is forgotten already.
int CancelAndClose(SOCKET s) {
    { const std::unique_lock<std::shared_mutex> nobodyHandsOver(HandingOver()); }
    CancelIoEx(reinterpret_cast<HANDLE>(s), nullptr);
    return closesocket(s);
}

constexpr DWORD kNoTicket = 0xFFFFFFFF;

/// Which entry of the catalog a protocol is.
void CopyEntry(const WSAPROTOCOL_INFOW& from, WSAPROTOCOL_INFOW* to) {
    to->ProviderId = from.ProviderId;
    to->dwCatalogEntryId = from.dwCatalogEntryId;
    to->ProtocolChain = from.ProtocolChain;
}

/// The system's own entry for the protocol, or what was given.
WSAPROTOCOL_INFOW SystemEntry(const WSAPROTOCOL_INFOW& info) {
    DWORD size = 0;
    WSAEnumProtocolsW(nullptr, nullptr, &size);
    std::vector<WSAPROTOCOL_INFOW> entries(size / sizeof(info));
    const int count = entries.empty() ? 0 : WSAEnumProtocolsW(nullptr, entries.data(), &size);
    for (int i = 0; i < count; ++i) {
        const WSAPROTOCOL_INFOW& entry = entries[static_cast<std::size_t>(i)];
        if (entry.iAddressFamily == info.iAddressFamily && entry.iSocketType == info.iSocketType &&
            entry.iProtocol == info.iProtocol && entry.ProtocolChain.ChainLen == BASE_PROTOCOL)
            return entry;
    }
    return info;
}

WSAPROTOCOL_INFOA Narrow(const WSAPROTOCOL_INFOW& info) {
    WSAPROTOCOL_INFOA narrow;
    static_assert(offsetof(WSAPROTOCOL_INFOA, szProtocol) == offsetof(WSAPROTOCOL_INFOW, szProtocol));
    std::memcpy(&narrow, &info, offsetof(WSAPROTOCOL_INFOW, szProtocol));
    WideCharToMultiByte(CP_ACP, 0, info.szProtocol, -1, narrow.szProtocol, sizeof(narrow.szProtocol), nullptr,
                        nullptr);
    return narrow;
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
        return Forget(s) ? CancelAndClose(s) : FailWith(WSAENOTSOCK, SOCKET_ERROR);
    });
}

// What the system writes stays, since its other end is made from that; only whose entry it is, is ours.
int WSPAPI DuplicateSocket(SOCKET s, DWORD process, LPWSAPROTOCOL_INFOW info, LPINT error) {
    return Run("lower WSPDuplicateSocket", WSAENOBUFS, SOCKET_ERROR, error, [&](const PlatformCall&) {
        SocketRecord record;
        if (!FindSocket(s, &record)) return FailWith(WSAENOTSOCK, SOCKET_ERROR);
        if (WSADuplicateSocketW(s, process, info) != 0) return SOCKET_ERROR;
        CopyEntry(record.info, info);
        // Not every system needs the ticket, but by it the other end is told from a new socket.
        if (info->dwProviderReserved == 0) info->dwProviderReserved = kNoTicket;
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
        const bool wide = option == SO_PROTOCOL_INFOW;
        if (level != SOL_SOCKET || (!wide && option != SO_PROTOCOL_INFOA) || !FindSocket(s, &record))
            return getsockopt(s, level, option, value, length);
        const WSAPROTOCOL_INFOA narrow = Narrow(record.info);
        const auto size = static_cast<int>(wide ? sizeof(record.info) : sizeof(narrow));
        if (value == nullptr || length == nullptr || *length < size) return FailWith(WSAEFAULT, SOCKET_ERROR);
        const void* const source = wide ? static_cast<const void*>(&record.info) : &narrow;
        std::memcpy(value, source, static_cast<std::size_t>(size));
        *length = size;
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
        if (code == SIO_GET_EXTENSION_FUNCTION_POINTER) {
            if (in == nullptr || inLength < sizeof(GUID)) return FailWith(WSAEFAULT, SOCKET_ERROR);
            return GiveExtension(s, *static_cast<const GUID*>(in), out, outLength, returned);
        }
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
    return Run("lower WSPRecv", WSAECONNRESET, SOCKET_ERROR, error, [&](const PlatformCall& call) {
        LimitedBuffers limited(call, buffers, count);
        return HandOver(s, overlapped, SOCKET_ERROR, [&] {
            return WSARecv(s, limited.data(), limited.count(), received, flags, overlapped, routine);
        });
    });
}

int WSPAPI RecvDisconnect(SOCKET s, LPWSABUF data, LPINT error) {
    return Run("lower WSPRecvDisconnect", WSAENETDOWN, SOCKET_ERROR, error,
               [&](const PlatformCall&) { return WSARecvDisconnect(s, data); });
}

int WSPAPI Send(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags,
                LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, LPWSATHREADID,
                LPINT error) {
    return Run("lower WSPSend", WSAECONNRESET, SOCKET_ERROR, error, [&](const PlatformCall& call) {
        LimitedBuffers limited(call, buffers, count);
        return HandOver(s, overlapped, SOCKET_ERROR, [&] {
            return WSASend(s, limited.data(), limited.count(), sent, flags, overlapped, routine);
        });
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
        record.info.dwProviderReserved = 0;
        record.type = type > 0 ? type : info->iSocketType;
        if (info->dwProviderReserved != 0) {  // the other end of a duplication
            WSAPROTOCOL_INFOW systems = *info;
            if (systems.dwProviderReserved == kNoTicket) systems.dwProviderReserved = 0;
            CopyEntry(SystemEntry(*info), &systems);
            return Publish(
                WSASocketW(FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, &systems, 0, flags),
                record);
        }
        const int wantedFamily = family > 0 ? family : info->iAddressFamily;
        const int wantedProtocol = protocol > 0 ? protocol : info->iProtocol;
        return Publish(WSASocketW(wantedFamily, record.type, wantedProtocol, nullptr, 0, flags), record);
    });
}

// The last clean-up closes what is still open: no socket outlives its provider.
int WSPAPI Cleanup(LPINT error) {
    return Run("lower WSPCleanup", WSAENETDOWN, SOCKET_ERROR, error, [](const PlatformCall&) {
        int startCount = 0;
        std::map<SOCKET, SocketRecord> open;
        {
            const std::lock_guard<std::mutex> lock(TheProvider().mutex);
            startCount = TheProvider().startCount;
            if (startCount > 0) TheProvider().startCount = startCount - 1;
            if (startCount == 1) open.swap(TheProvider().sockets);
        }
        if (startCount == 0) return FailWith(WSANOTINITIALISED, SOCKET_ERROR);
        if (startCount > 1) return WSACleanup();
        for (const auto& [s, record] : open) {
            ForgetNames(s);
            CancelAndClose(s);
        }
        CloseBlackHoles();
        return WSACleanup();
    });
}

}  // namespace

LimitedBuffers::LimitedBuffers(const PlatformCall& call, LPWSABUF buffers, DWORD count)
    : data_(buffers), count_(count) {
    constexpr DWORD kAll = 0xFFFFFFFF;
    DWORD left = call.LimitCount(kAll);
    if (left == kAll || buffers == nullptr) return;
    for (DWORD i = 0; i < count && left > 0; ++i) {
        cut_.push_back({std::min(buffers[i].len, left), buffers[i].buf});
        left -= cut_.back().len;
    }
    data_ = cut_.data();
    count_ = static_cast<DWORD>(cut_.size());
}

std::shared_mutex& HandingOver() {
    static std::shared_mutex& mutex = *new std::shared_mutex;
    return mutex;
}

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
