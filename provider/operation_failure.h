// How an operation of the layer fails.
#pragma once

#include <winsock2.h>

/// The error of a lower call that failed: one that names none has failed all the same.
inline INT LowerError(INT error) {
    return error != 0 ? error : INT{WSAEINVAL};
}

/// Stores `code` as the operation's error, from which the socket library sets the thread's last error.
/// Returns SOCKET_ERROR.
inline int Fail(INT code, LPINT error) {
    *error = code;
    return SOCKET_ERROR;
}

/// For failures of the layer's own making, which set the last error as well: callers exist that read that one
/// alone.
inline int FailWithLastError(INT code, LPINT error) {
    WSASetLastError(code);
    return Fail(code, error);
}
