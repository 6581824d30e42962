// The operations that see the machine's routes, the extension functions, and select, whose limit runs on the
// clock.
#include <vector>

#include "tests/windows/host/clock_waits.h"
#include "tests/windows/host/lower_provider.h"
#include "tests/windows/host/lower_route.h"

namespace lower {

namespace {

/// The route of a socket's traffic; false with the last error.
bool RouteOf(SOCKET s, const sockaddr* destination, int length, Route* route) {
    SocketRecord record;
    if (!FindSocket(s, &record)) return FailWith(WSAENOTSOCK, false);
    if (destination == nullptr) return FailWith(WSAEFAULT, false);
    const int error = FindRoute(destination, length, record.type, route);
    if (error == 0 && route->routed) RememberName(s, destination, length, *route);
    return error == 0 || FailWith(error, false);
}

const sockaddr* TargetOf(const Route& route) {
    return reinterpret_cast<const sockaddr*>(&route.target);
}

/// The system's own extension function.
template <class Function>
Function SystemExtension(SOCKET s, GUID id) {
    Function function = nullptr;
    DWORD returned = 0;
    WSAIoctl(s, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof(id), &function, sizeof(function), &returned,
             nullptr, nullptr);
    return function;
}

BOOL WINAPI RoutedConnectEx(SOCKET s, const sockaddr* name, int length, PVOID data, DWORD dataLength,
                            LPDWORD sent, LPOVERLAPPED overlapped) {
    const PlatformCall call("lower ConnectEx", WSAENETUNREACH);
    if (call.Fails()) return FALSE;
    Route route;
    if (!RouteOf(s, name, length, &route)) return FALSE;
    const auto connectEx = SystemExtension<LPFN_CONNECTEX>(s, WSAID_CONNECTEX);
    if (connectEx == nullptr) return FailWith(WSAEOPNOTSUPP, FALSE);
    return HandOver(s, overlapped, FALSE, [&] {
        return connectEx(s, TargetOf(route), length, data, dataLength, sent, overlapped);
    });
}

// The memory elements are sent as one request; files are not taken.
BOOL WINAPI TransmitMemory(SOCKET s, LPTRANSMIT_PACKETS_ELEMENT elements, DWORD count, DWORD,
                           LPOVERLAPPED overlapped, DWORD flags) {
    const PlatformCall call("lower TransmitPackets", WSAENOBUFS);
    if (call.Fails()) return FALSE;
    std::vector<WSABUF> buffers;
    for (DWORD i = 0; i < count; ++i) {
        if ((elements[i].dwElFlags & TP_ELEMENT_MEMORY) == 0) return FailWith(WSAEOPNOTSUPP, FALSE);
        buffers.push_back({elements[i].cLength, static_cast<char*>(elements[i].pBuffer)});
    }
    // A request that stays under way could not be followed by the disconnect.
    if (overlapped != nullptr && (flags & TF_DISCONNECT) != 0) return FailWith(WSAEOPNOTSUPP, FALSE);
    DWORD sent = 0;
    const BOOL done = HandOver(s, overlapped, FALSE, [&] {
        return WSASend(s, buffers.data(), count, &sent, 0, overlapped, nullptr) == 0 ? TRUE : FALSE;
    });
    if (done && (flags & TF_DISCONNECT) != 0) shutdown(s, SD_SEND);
    return done;
}

// The system's other extension functions, behind fault points.

BOOL WINAPI SystemAcceptEx(SOCKET listener, SOCKET accepting, PVOID output, DWORD receive, DWORD local,
                           DWORD remote, LPDWORD received, LPOVERLAPPED overlapped) {
    const PlatformCall call("lower AcceptEx", WSAENOBUFS);
    if (call.Fails()) return FALSE;
    const auto acceptEx = SystemExtension<LPFN_ACCEPTEX>(listener, WSAID_ACCEPTEX);
    if (acceptEx == nullptr) return FailWith(WSAENOTSOCK, FALSE);
    return HandOver(listener, overlapped, FALSE, [&] {
        return acceptEx(listener, accepting, output, receive, local, remote, received, overlapped);
    });
}

BOOL WINAPI SystemDisconnectEx(SOCKET s, LPOVERLAPPED overlapped, DWORD flags, DWORD reserved) {
    const PlatformCall call("lower DisconnectEx", WSAENOTCONN);
    if (call.Fails()) return FALSE;
    const auto disconnectEx = SystemExtension<LPFN_DISCONNECTEX>(s, WSAID_DISCONNECTEX);
    if (disconnectEx == nullptr) return FailWith(WSAENOTSOCK, FALSE);
    if (HandOver(s, overlapped, FALSE, [&] { return disconnectEx(s, overlapped, flags, reserved); }))
        return TRUE;
    // Wine calls pending what has ended inside the call, and then queues no packet for a socket that wants
    // none for such ends.
    return overlapped != nullptr && GetLastError() == WSA_IO_PENDING && overlapped->Internal == 0;
}

BOOL WINAPI SystemTransmitFile(SOCKET s, HANDLE file, DWORD bytes, DWORD bytesPerSend,
                               LPOVERLAPPED overlapped, LPTRANSMIT_FILE_BUFFERS buffers, DWORD flags) {
    const PlatformCall call("lower TransmitFile", WSAENOBUFS);
    if (call.Fails()) return FALSE;
    // Wine has another error for this.
    if (file != nullptr && GetFileType(file) == FILE_TYPE_UNKNOWN && GetLastError() == ERROR_INVALID_HANDLE)
        return FailWith(WSA_INVALID_HANDLE, FALSE);
    const auto transmitFile = SystemExtension<LPFN_TRANSMITFILE>(s, WSAID_TRANSMITFILE);
    if (transmitFile == nullptr) return FailWith(WSAENOTSOCK, FALSE);
    return HandOver(s, overlapped, FALSE,
                    [&] { return transmitFile(s, file, bytes, bytesPerSend, overlapped, buffers, flags); });
}

INT WINAPI SystemWsaRecvMsg(SOCKET s, LPWSAMSG message, LPDWORD received, LPWSAOVERLAPPED overlapped,
                            LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
    const PlatformCall call("lower WSARecvMsg", WSAECONNRESET);
    if (call.Fails()) return SOCKET_ERROR;
    const auto recvMsg = SystemExtension<LPFN_WSARECVMSG>(s, WSAID_WSARECVMSG);
    if (recvMsg == nullptr) return FailWith(WSAENOTSOCK, SOCKET_ERROR);
    return HandOver(s, overlapped, SOCKET_ERROR,
                    [&] { return recvMsg(s, message, received, overlapped, routine); });
}

template <class Function>
int Give(Function function, LPVOID out, LPDWORD returned) {
    *static_cast<Function*>(out) = function;
    *returned = sizeof(function);
    return 0;
}

}  // namespace

int GiveExtension(SOCKET s, const GUID& id, LPVOID out, DWORD outLength, LPDWORD returned) {
    if (out == nullptr || outLength < sizeof(void*)) return FailWith(WSAEFAULT, SOCKET_ERROR);
    const GUID connectEx = WSAID_CONNECTEX;
    const GUID transmitPackets = WSAID_TRANSMITPACKETS;
    const GUID acceptEx = WSAID_ACCEPTEX;
    const GUID disconnectEx = WSAID_DISCONNECTEX;
    const GUID transmitFile = WSAID_TRANSMITFILE;
    const GUID recvMsg = WSAID_WSARECVMSG;
    if (IsEqualGUID(id, connectEx)) return Give<LPFN_CONNECTEX>(RoutedConnectEx, out, returned);
    if (IsEqualGUID(id, transmitPackets)) return Give<LPFN_TRANSMITPACKETS>(TransmitMemory, out, returned);
    if (IsEqualGUID(id, acceptEx)) return Give<LPFN_ACCEPTEX>(SystemAcceptEx, out, returned);
    if (IsEqualGUID(id, disconnectEx)) return Give<LPFN_DISCONNECTEX>(SystemDisconnectEx, out, returned);
    if (IsEqualGUID(id, transmitFile)) return Give<LPFN_TRANSMITFILE>(SystemTransmitFile, out, returned);
    if (IsEqualGUID(id, recvMsg)) return Give<LPFN_WSARECVMSG>(SystemWsaRecvMsg, out, returned);
    GUID asked = id;
    return WSAIoctl(s, SIO_GET_EXTENSION_FUNCTION_POINTER, &asked, sizeof(asked), out, outLength, returned,
                    nullptr, nullptr);
}

int WSPAPI Connect(SOCKET s, const sockaddr* name, int length, LPWSABUF caller, LPWSABUF callee,
                   LPQOS socketQos, LPQOS groupQos, LPINT error) {
    return Run("lower WSPConnect", WSAENETUNREACH, SOCKET_ERROR, error, [&](const PlatformCall&) {
        Route route;
        if (!RouteOf(s, name, length, &route)) return SOCKET_ERROR;
        return WSAConnect(s, TargetOf(route), length, caller, callee, socketQos, groupQos);
    });
}

int WSPAPI GetPeerName(SOCKET s, sockaddr* name, LPINT length, LPINT error) {
    return Run("lower WSPGetPeerName", WSAENETDOWN, SOCKET_ERROR, error, [&](const PlatformCall&) {
        if (getpeername(s, name, length) != 0) return SOCKET_ERROR;
        RestoreName(s, name, length);
        return 0;
    });
}

int WSPAPI SendTo(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent, DWORD flags, const sockaddr* to,
                  int toLength, LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine,
                  LPWSATHREADID, LPINT error) {
    return Run("lower WSPSendTo", WSAENETUNREACH, SOCKET_ERROR, error, [&](const PlatformCall& call) {
        LimitedBuffers limited(call, buffers, count);
        if (to == nullptr)
            return HandOver(s, overlapped, SOCKET_ERROR, [&] {
                return WSASend(s, limited.data(), limited.count(), sent, flags, overlapped, routine);
            });
        Route route;
        if (!RouteOf(s, to, toLength, &route)) return SOCKET_ERROR;
        return HandOver(s, overlapped, SOCKET_ERROR, [&] {
            return WSASendTo(s, limited.data(), limited.count(), sent, flags, TargetOf(route), toLength,
                             overlapped, routine);
        });
    });
}

// A request that stays under way delivers its sender unrouted: the caller's address is written by the system.
int WSPAPI RecvFrom(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD received, LPDWORD flags, sockaddr* from,
                    LPINT fromLength, LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine,
                    LPWSATHREADID, LPINT error) {
    return Run("lower WSPRecvFrom", WSAECONNRESET, SOCKET_ERROR, error, [&](const PlatformCall& call) {
        LimitedBuffers limited(call, buffers, count);
        const int result = HandOver(s, overlapped, SOCKET_ERROR, [&] {
            return WSARecvFrom(s, limited.data(), limited.count(), received, flags, from, fromLength,
                               overlapped, routine);
        });
        if (result == 0) RestoreName(s, from, fromLength);
        return result;
    });
}

int WSPAPI Select(int, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, const PTIMEVAL timeout,
                  LPINT error) {
    return Run("lower WSPSelect", WSAENETDOWN, SOCKET_ERROR, error, [&](const PlatformCall&) {
        return platform::SelectOnClock(readSet, writeSet, exceptSet, timeout);
    });
}

}  // namespace lower
