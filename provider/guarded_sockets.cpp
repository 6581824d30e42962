// Every wrapper is one row: the call, the line that reports an exception, the failure value. Locks are taken
// outside of the guarded call, since nothing inside it is undone when it raises.
#include "provider/guarded_sockets.h"

#include <guarded_call.h>

#include "base/atomic.h"
#include "base/layer_call.h"
#include "base/locker.h"
#include "base/trace.h"
#include "provider/process_state.h"

namespace {

GUID ConnectExId = WSAID_CONNECTEX;

Atomic<unsigned int> CloseHandleExceptions{0};
Atomic<unsigned int> ConnectExExceptions{0};

int ThreadForTrace() {
    return static_cast<int>(GetCurrentThreadId());
}

int SocketForTrace(SOCKET s) {
    return static_cast<int>(s);
}

/// Runs `call`; when it raises, runs `report` (which traces) and gives `failure` with WSAEFAULT.
template <class Result, class Call, class Report>
Result Guarded(Result failure, Call call, Report report,
               LayerCall::Kind kind = LayerCall::Kind::kUsesSockets) {
    const LayerCall layerCall(kind);
    Result result = failure;
    if (GuardedCall([&]() noexcept { result = call(); })) return result;
    report();
    WSASetLastError(WSAEFAULT);
    return failure;
}

/// Most wrappers report the socket and the thread.
template <class Result, class Call>
Result GuardedOnSocket(SOCKET s, const char* what, Result failure, Call call) {
    return Guarded(failure, call, [&] {
        Trace("ERROR:Unhandled EXCEPTION when %s socket %d from thread %d", what, SocketForTrace(s),
              ThreadForTrace());
    });
}

/// The extension function of `s` that `id` names, stored in `*function` (possibly null); false when asking
/// fails.
template <class Function>
bool FetchExtension(SOCKET s, GUID& id, Function* function) {
    DWORD bytes = 0;
    return WSAIoctl(s, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof(id), function, sizeof(*function),
                    &bytes, nullptr, nullptr) != SOCKET_ERROR;
}

}  // namespace

int SafeWSASend(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytesSent, DWORD flags,
                LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE completionRoutine) {
    return Guarded(
        SOCKET_ERROR,
        [&] { return WSASend(s, buffers, count, bytesSent, flags, overlapped, completionRoutine); },
        [] { Trace("ERROR:LSP WSASend EXCEPTION in thread: %d", ThreadForTrace()); });
}

int SafeWSARecv(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytesReceived, LPDWORD flags,
                LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE completionRoutine) {
    return Guarded(
        SOCKET_ERROR,
        [&] { return WSARecv(s, buffers, count, bytesReceived, flags, overlapped, completionRoutine); },
        [] { Trace("ERROR:LSP WSARecv EXCEPTION in thread: %d", ThreadForTrace()); });
}

int SafeShutdown(SOCKET s, int how) {
    if (s == 0 || s == INVALID_SOCKET) {
        WSASetLastError(WSAENOTSOCK);
        return SOCKET_ERROR;
    }
    return Guarded(
        SOCKET_ERROR, [&] { return shutdown(s, how); },
        [&] {
            Trace("ERROR:EXCEPTION when shutting down lsp socket %d, from thread %d", SocketForTrace(s),
                  ThreadForTrace());
        });
}

int SafeCloseSocket(SOCKET s) {
    if (s == 0 || s == INVALID_SOCKET) return 0;
    const Locker lock(SocketCreateCloseLock);
    return Guarded(
        SOCKET_ERROR, [&] { return closesocket(s); },
        [&] {
            Trace("ERROR:EXCEPTION when closing lsp socket %d, from thread %d", SocketForTrace(s),
                  ThreadForTrace());
        });
}

BOOL SafeCloseHandle(HANDLE handle) {
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE) return TRUE;
    return Guarded(
        BOOL{FALSE},
        [&] {
            CloseHandle(handle);
            return BOOL{TRUE};
        },
        [&] {
            Trace("ERROR:LSP EXCEPTION Closing handle %d in thread: %d, %d",
                  static_cast<int>(reinterpret_cast<ULONG_PTR>(handle)), ThreadForTrace(),
                  static_cast<int>(CloseHandleExceptions.FetchAdd(1)));
        });
}

SOCKET SafeWSASocket(int family, int type, int protocol, LPWSAPROTOCOL_INFOA protocolInfo, GROUP group,
                     DWORD flags) {
    const Locker lock(SocketCreateCloseLock);
    return Guarded(
        INVALID_SOCKET, [&] { return WSASocketA(family, type, protocol, protocolInfo, group, flags); },
        [] { Trace("ERROR:Unhandled EXCEPTION when creating socket from thread %d", ThreadForTrace()); },
        LayerCall::Kind::kMakesSocket);
}

BOOL SafeWSAGetOverlappedResult(SOCKET s, LPWSAOVERLAPPED overlapped, LPDWORD bytes, BOOL wait,
                                LPDWORD flags) {
    return GuardedOnSocket(s, "getting overlapped result for", BOOL{FALSE},
                           [&] { return WSAGetOverlappedResult(s, overlapped, bytes, wait, flags); });
}

BOOL SafeConnectEx(SOCKET s, const sockaddr* name, int namelen, PVOID sendBuffer, DWORD sendLength,
                   LPDWORD bytesSent, LPOVERLAPPED overlapped) {
    return Guarded(
        BOOL{FALSE},
        [&]() -> BOOL {
            LPFN_CONNECTEX connectEx = nullptr;
            if (!FetchExtension(s, ConnectExId, &connectEx) || connectEx == nullptr) {
                Trace("ERROR:Unhandled EXCEPTION when obtaining the connect ex function for socket %d. %d.",
                      SocketForTrace(s), WSAGetLastError());
                WSASetLastError(WSAEFAULT);
                return FALSE;
            }
            return connectEx(s, name, namelen, sendBuffer, sendLength, bytesSent, overlapped);
        },
        [&] {
            Trace("ERROR:Unhandled lsp EXCEPTION when connecting ex on socket %d, from thread %d :%d",
                  SocketForTrace(s), ThreadForTrace(), static_cast<int>(ConnectExExceptions.FetchAdd(1)));
        });
}

int SafeConnect(SOCKET s, const sockaddr* name, int namelen) {
    return GuardedOnSocket(s, "connecting", SOCKET_ERROR, [&] { return connect(s, name, namelen); });
}

int SafeGetSockName(SOCKET s, sockaddr* name, int* namelen) {
    return GuardedOnSocket(s, "getting the name of", SOCKET_ERROR,
                           [&] { return getsockname(s, name, namelen); });
}

int SafeSetSockOpt(SOCKET s, int level, int option, const char* value, int length) {
    return GuardedOnSocket(s, "calling setsockopt on", SOCKET_ERROR,
                           [&] { return setsockopt(s, level, option, value, length); });
}

int SafeIoctlSocket(SOCKET s, LONG command, u_long* argument) {
    return GuardedOnSocket(s, "calling ioctlsocket on", SOCKET_ERROR,
                           [&] { return ioctlsocket(s, command, argument); });
}

int SafeBind(SOCKET s, const sockaddr* name, int namelen) {
    return GuardedOnSocket(s, "calling bind on", SOCKET_ERROR, [&] { return bind(s, name, namelen); });
}

int SafeListen(SOCKET s, int backlog) {
    return GuardedOnSocket(s, "calling listen on", SOCKET_ERROR, [&] { return listen(s, backlog); });
}

BOOL SafeAcceptEx(SOCKET listener, SOCKET accepting, PVOID output, DWORD receiveLength, DWORD localLength,
                  DWORD remoteLength, LPDWORD bytesReceived, LPOVERLAPPED overlapped) {
    return Guarded(
        BOOL{FALSE},
        [&] {
            return AcceptEx(listener, accepting, output, receiveLength, localLength, remoteLength,
                            bytesReceived, overlapped);
        },
        [&] {
            Trace("ERROR:EXCEPTION when accepting on socket %d, from thread %d.", SocketForTrace(listener),
                  ThreadForTrace());
        });
}

void CloseSocketCompletely(SOCKET& s) {
    // DisconnectEx without a record would wait for a peer that does not read, and hold up every other close.
    SafeShutdown(s, SD_BOTH);
    SafeCloseSocket(s);
    s = INVALID_SOCKET;
}
