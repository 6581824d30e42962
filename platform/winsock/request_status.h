// How a finished overlapped request says that it failed: the status in its `Internal`, and the system error
// that a waiter at the completion port gets for it. The same translations that the system itself makes for
// its own sockets.
#pragma once

#include <winsock2.h>

#include <windows.h>

namespace winsock_host {

struct RequestStatus {
    DWORD status;       // for OVERLAPPED::Internal
    DWORD systemError;  // for GetQueuedCompletionStatus; 0: success
};

inline RequestStatus RequestStatusOf(DWORD winsockError) {
    switch (winsockError) {
        case 0:
            return {0, 0};
        case WSA_OPERATION_ABORTED:
            return {0xC0000120, ERROR_OPERATION_ABORTED};
        case WSAECONNRESET:
            return {0xC000020D, ERROR_NETNAME_DELETED};
        case WSAECONNABORTED:
            return {0xC0000241, ERROR_CONNECTION_ABORTED};
        case WSAECONNREFUSED:
            return {0xC0000236, ERROR_CONNECTION_REFUSED};
        case WSAETIMEDOUT:
            return {0xC00000B5, ERROR_SEM_TIMEOUT};
        case WSAENETUNREACH:
            return {0xC000023C, ERROR_NETWORK_UNREACHABLE};
        case WSAEHOSTUNREACH:
            return {0xC000023D, ERROR_HOST_UNREACHABLE};
        case WSAEMSGSIZE:
            return {0x80000005, ERROR_MORE_DATA};
        case WSAENOBUFS:
            return {0xC000009A, ERROR_NO_SYSTEM_RESOURCES};
        case WSAEFAULT:
            return {0xC0000005, ERROR_NOACCESS};
        case WSAEINVAL:
            return {0xC000000D, ERROR_INVALID_PARAMETER};
        default:
            return {0xC0000001, ERROR_GEN_FAILURE};
    }
}

}  // namespace winsock_host
