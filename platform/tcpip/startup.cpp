// Starting and ending the provider, making sockets and closing them.
//
// The list of open handles is guarded by one lock, a leaf but for the handle table. It exists for the last
// clean-up, which closes what the application left open: no object of this module may outlive the module.
#include <ws2spi.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <vector>

#include "platform/tcpip/error_table.h"
#include "platform/tcpip/operations.h"
#include "platform/tcpip/reactor.h"
#include "platform/tcpip/routes.h"
#include "platform/tcpip/timed_wait.h"

namespace tcpip {
namespace {

using platform::PlatformCall;

constexpr WORD kVersion = MAKEWORD(2, 2);

struct Provider {
    std::mutex lock;  // guards the fields below but `upcalls`
    int startCount = 0;
    std::vector<HANDLE> handles;     // open, in no order
    std::vector<HANDLE> duplicates;  // made by WSPDuplicateSocket and not yet asked for
    WSPUPCALLTABLE upcalls = {};     // written by the first start-up, before there is any socket
};

Provider TheProvider;

/// Forgets a handle; false when it was not in the list.
bool Remove(std::vector<HANDLE>* list, HANDLE handle) {
    const auto found = std::find(list->rbegin(), list->rend(), handle);
    if (found == list->rend()) return false;
    *found = list->back();
    list->pop_back();
    return true;
}

int CloseSocketHandle(SOCKET s) {
    const HANDLE handle = reinterpret_cast<HANDLE>(s);
    if (platform::ReferenceHandleAs<Socket>(handle, platform::ObjectKind::kLowerSocket) == nullptr) {
        return WSAENOTSOCK;
    }
    {
        // Forgotten before it is closed, since the value may be given out again at once.
        std::lock_guard<std::mutex> guard(TheProvider.lock);
        Remove(&TheProvider.handles, handle);
    }
    return platform::CloseOpenHandle(handle) ? 0 : WSAENOTSOCK;
}

/// The last clean-up: nothing of this module may stay behind in the process.
void CloseEverything(const std::vector<HANDLE>& handles) {
    for (const HANDLE handle : handles) {
        // The application may have closed a handle behind the provider's back; the value can be anything by
        // now.
        if (platform::ReferenceHandleAs<Socket>(handle, platform::ObjectKind::kLowerSocket) != nullptr) {
            platform::CloseOpenHandle(handle);
        }
    }
    StopReactor();
    FreeRequests();
    CloseBlackHoles();
    CloseWakers();
}

struct SocketKind {
    int type;
    kernel::Kind kind;
    int protocol;
};

constexpr SocketKind kSocketKinds[] = {
    {SOCK_STREAM, kernel::Kind::Stream, IPPROTO_TCP},
    {SOCK_DGRAM, kernel::Kind::Datagram, IPPROTO_UDP},
};

/// Completes and checks the three numbers as Windows does; FROM_PROTOCOL_INFO and zeros are taken from
/// `info`.
int ResolveKind(const WSAPROTOCOL_INFOW& info, int* family, int* type, int* protocol, kernel::Kind* kind) {
    if (*family == FROM_PROTOCOL_INFO || *family == AF_UNSPEC) *family = info.iAddressFamily;
    if (*type == FROM_PROTOCOL_INFO || *type == 0) *type = info.iSocketType;
    if (*protocol == FROM_PROTOCOL_INFO || *protocol == 0) *protocol = info.iProtocol;
    if (*family != AF_INET && *family != AF_INET6) return WSAEAFNOSUPPORT;
    for (const SocketKind& row : kSocketKinds) {
        if (row.type != *type) continue;
        *kind = row.kind;
        if (*protocol == 0) *protocol = row.protocol;
        if (*protocol == row.protocol) return 0;
        // Windows tells a stream that is to be UDP from a datagram socket with a stream protocol.
        return *type == SOCK_DGRAM ? WSAEPROTONOSUPPORT : WSAEPROTOTYPE;
    }
    return WSAESOCKTNOSUPPORT;
}

int CreateSocket(int family, int type, int protocol, const WSAPROTOCOL_INFOW& info, bool overlapped,
                 SOCKET* result) {
    kernel::Kind kind;
    int error = ResolveKind(info, &family, &type, &protocol, &kind);
    if (error != 0) return error;
    const bool v6 = family == AF_INET6;
    int kernelError = 0;
    const int fd = kernel::Create(v6, kind, &kernelError);
    if (fd < 0) return WinsockErrorFromErrno(kernelError);
    const std::shared_ptr<Socket> socket = MakeSocket(info, v6, kind, overlapped, fd);
    if (socket == nullptr) return WSAENOBUFS;
    return PublishSocket(socket, result);
}

/// The second half of a duplication within the process: the handle exists already.
int TakeDuplicate(DWORD reserved, SOCKET* result) {
    const HANDLE handle = reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(reserved));
    std::lock_guard<std::mutex> guard(TheProvider.lock);
    if (!Remove(&TheProvider.duplicates, handle)) return WSAEINVAL;
    *result = reinterpret_cast<SOCKET>(handle);
    return 0;
}

int Start(WORD version, WSPDATA* data, const WSPUPCALLTABLE& upcalls, WSPPROC_TABLE* table) {
    if (data == nullptr || table == nullptr) return WSAEFAULT;
    if (LOBYTE(version) < 2 || (LOBYTE(version) == 2 && HIBYTE(version) < 2)) return WSAVERNOTSUPPORTED;
    *data = {};
    data->wVersion = kVersion;
    data->wHighVersion = kVersion;
    constexpr char16_t kDescription[] = u"TCP/IP base provider";
    std::copy(std::begin(kDescription), std::end(kDescription), data->szDescription);
    *table = {TcpipAccept,
              TcpipAddressToString,
              TcpipAsyncSelect,
              TcpipBind,
              TcpipCancelBlockingCall,
              TcpipCleanup,
              TcpipCloseSocket,
              TcpipConnect,
              TcpipDuplicateSocket,
              TcpipEnumNetworkEvents,
              TcpipEventSelect,
              TcpipGetOverlappedResult,
              TcpipGetPeerName,
              TcpipGetSockName,
              TcpipGetSockOpt,
              TcpipGetQOSByName,
              TcpipIoctl,
              TcpipJoinLeaf,
              TcpipListen,
              TcpipRecv,
              TcpipRecvDisconnect,
              TcpipRecvFrom,
              TcpipSelect,
              TcpipSend,
              TcpipSendDisconnect,
              TcpipSendTo,
              TcpipSetSockOpt,
              TcpipShutdown,
              TcpipSocket,
              TcpipStringToAddress};
    std::lock_guard<std::mutex> guard(TheProvider.lock);
    if (TheProvider.startCount++ == 0) TheProvider.upcalls = upcalls;
    return 0;
}

}  // namespace

const WSPUPCALLTABLE& Upcalls() {
    return TheProvider.upcalls;
}

bool IsStarted() {
    std::lock_guard<std::mutex> guard(TheProvider.lock);
    return TheProvider.startCount > 0;
}

std::shared_ptr<Socket> MakeSocket(const WSAPROTOCOL_INFOW& info, bool v6, kernel::Kind kind, bool overlapped,
                                   int fd) {
    try {
        return std::make_shared<Socket>(info, v6, kind, overlapped, fd);
    } catch (const std::bad_alloc&) {
        kernel::Close(fd);
        return nullptr;
    }
}

int PublishSocket(const std::shared_ptr<Socket>& socket, SOCKET* result) {
    const HANDLE handle = platform::OpenHandle(socket);
    if (handle == nullptr) return WSAENOBUFS;
    {
        std::unique_lock<std::mutex> guard(TheProvider.lock);
        try {
            TheProvider.handles.push_back(handle);
        } catch (const std::bad_alloc&) {
            guard.unlock();
            platform::CloseOpenHandle(handle);
            return WSAENOBUFS;
        }
    }
    // Winsock may know the handle under another value than ours; then that one is the socket.
    int error = 0;
    *result = reinterpret_cast<SOCKET>(handle);
    if (TheProvider.upcalls.lpWPUModifyIFSHandle != nullptr) {
        *result = TheProvider.upcalls.lpWPUModifyIFSHandle(socket->info.dwCatalogEntryId, *result, &error);
    }
    if (*result != INVALID_SOCKET) return 0;
    CloseSocketHandle(reinterpret_cast<SOCKET>(handle));
    return error;
}

int WSPAPI TcpipCleanup(LPINT lpErrno) {
    return RunOperation("lower WSPCleanup", WSAENETDOWN, SOCKET_ERROR, lpErrno,
                        [](PlatformCall&, int* result) {
                            std::vector<HANDLE> handles;
                            {
                                std::lock_guard<std::mutex> guard(TheProvider.lock);
                                if (TheProvider.startCount == 0) return WSANOTINITIALISED;
                                *result = 0;
                                if (--TheProvider.startCount > 0) return 0;
                                handles.swap(TheProvider.handles);
                                TheProvider.duplicates.clear();
                            }
                            CloseEverything(handles);
                            return 0;
                        });
}

SOCKET WSPAPI TcpipSocket(int af, int type, int protocol, LPWSAPROTOCOL_INFOW info, GROUP, DWORD flags,
                          LPINT lpErrno) {
    return RunOperation(
        "lower WSPSocket", WSAENOBUFS, INVALID_SOCKET, lpErrno, [&](PlatformCall&, SOCKET* result) {
            if (!IsStarted()) return WSANOTINITIALISED;
            if (info == nullptr) return WSAEFAULT;
            if (info->dwProviderReserved != 0) return TakeDuplicate(info->dwProviderReserved, result);
            return CreateSocket(af, type, protocol, *info, (flags & WSA_FLAG_OVERLAPPED) != 0, result);
        });
}

int WSPAPI TcpipCloseSocket(SOCKET s, LPINT lpErrno) {
    return RunOperation("lower WSPCloseSocket", WSAENOTSOCK, SOCKET_ERROR, lpErrno,
                        [&](PlatformCall&, int* result) {
                            *result = 0;
                            return CloseSocketHandle(s);
                        });
}

int WSPAPI TcpipDuplicateSocket(SOCKET s, DWORD processId, LPWSAPROTOCOL_INFOW info, LPINT lpErrno) {
    return RunOnSocket("lower WSPDuplicateSocket", WSAENOBUFS, s, lpErrno,
                       [&](PlatformCall&, const SocketUse& socket) {
                           if (info == nullptr) return WSAEFAULT;
                           // Kernel objects exist in one process; there is none to hand a socket to.
                           if (processId != GetCurrentProcessId()) return WSAEINVAL;
                           SOCKET duplicate = INVALID_SOCKET;
                           const int error = PublishSocket(socket.pointer(), &duplicate);
                           if (error != 0) return error;
                           *info = socket->info;
                           info->dwProviderReserved = static_cast<DWORD>(duplicate);
                           std::lock_guard<std::mutex> guard(TheProvider.lock);
                           TheProvider.duplicates.push_back(reinterpret_cast<HANDLE>(duplicate));
                           return 0;
                       });
}

}  // namespace tcpip

extern "C" __attribute__((visibility("default"))) int WSPAPI WSPStartup(WORD version, LPWSPDATA data,
                                                                        LPWSAPROTOCOL_INFOW,
                                                                        WSPUPCALLTABLE upcalls,
                                                                        LPWSPPROC_TABLE table) {
    platform::PlatformCall call("lower WSPStartup", WSASYSNOTREADY);
    return call.Faulted() ? static_cast<int>(call.error()) : tcpip::Start(version, data, upcalls, table);
}
