// What the provider as a whole keeps: how often it was started, Winsock's upcalls, and the sockets that are
// open. And the frame that each of its 30 operations runs in.
#pragma once

#include <winsock2.h>

#include <ws2spi.h>

#include <memory>
#include <new>

#include "platform/kernel/fault_points.h"
#include "platform/tcpip/socket.h"

namespace tcpip {

/// Winsock's upcalls, as given to the first start-up. Constant while any socket is open.
const WSPUPCALLTABLE& Upcalls();

bool IsStarted();

/// Gives the socket its handle, told to Winsock. 0 or a Winsock error; the socket is then closed.
int PublishSocket(const std::shared_ptr<Socket>& socket, SOCKET* handle);

/// A new socket around a descriptor, or null without memory (the descriptor is then closed).
std::shared_ptr<Socket> MakeSocket(const WSAPROTOCOL_INFOW& info, bool v6, kernel::Kind kind, bool overlapped,
                                   int fd);

/// Runs an operation: its fault point, its error out-parameter, and no exception beyond. `body(call,
/// &result)` returns 0 or the Winsock error; the result is then `failure`.
template <class Result, class Body>
Result RunOperation(const char* name, int defaultError, Result failure, LPINT lpErrno, Body body) {
    platform::PlatformCall call(name, static_cast<DWORD>(defaultError));
    Result result = failure;
    int error = call.Faulted() ? static_cast<int>(call.error()) : 0;
    if (error == 0) {
        try {
            error = body(call, &result);
        } catch (const std::bad_alloc&) {
            error = WSAENOBUFS;
        }
    }
    if (error == 0) return result;
    if (lpErrno != nullptr) *lpErrno = error;
    return failure;
}

/// The common form: on the socket `s`, with 0 for success and SOCKET_ERROR for failure.
template <class Body>
int RunOnSocket(const char* name, int defaultError, SOCKET s, LPINT lpErrno, Body body) {
    return RunOperation(name, defaultError, SOCKET_ERROR, lpErrno,
                        [&](platform::PlatformCall& call, int* result) {
                            const SocketUse socket(s);
                            if (!socket) return WSAENOTSOCK;
                            const int error = body(call, socket);
                            if (error == 0) *result = 0;
                            return error;
                        });
}

/// The form of the extension functions, which applications call directly: `body(socket)` returns 0 or the
/// Winsock error, which becomes the thread's last error.
template <class Body>
bool RunExtension(const char* name, int defaultError, SOCKET s, Body body) {
    int error = 0;
    const int result =
        RunOnSocket(name, defaultError, s, &error,
                    [&](platform::PlatformCall&, const SocketUse& socket) { return body(socket); });
    if (result != 0) SetLastError(static_cast<DWORD>(error));
    return result == 0;
}

}  // namespace tcpip
