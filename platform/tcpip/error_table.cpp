// Two tables, searched from the top: several errno values share a Winsock error, and several Winsock errors
// may share a status. A status translates back to the first row that holds it.
#include "platform/tcpip/error_table.h"

#include <cerrno>

namespace tcpip {
namespace {

struct ErrnoRow {
    int error;
    int winsock;
};

constexpr ErrnoRow kErrnoTable[] = {
    {EAGAIN, WSAEWOULDBLOCK},
    {EINPROGRESS, WSAEWOULDBLOCK},
    {EALREADY, WSAEALREADY},
    {EISCONN, WSAEISCONN},
    {ECONNREFUSED, WSAECONNREFUSED},
    {ECONNRESET, WSAECONNRESET},
    {EPIPE,
     WSAECONNRESET},  // the peer reset the connection earlier; an own shutdown is told apart by the caller
    {ECONNABORTED, WSAECONNABORTED},
    {ENOTCONN, WSAENOTCONN},
    {ETIMEDOUT, WSAETIMEDOUT},
    {EINTR, WSAEINTR},
    {EBADF, WSAENOTSOCK},
    {ENOTSOCK, WSAENOTSOCK},
    {EACCES, WSAEACCES},
    {EPERM, WSAEACCES},
    {EFAULT, WSAEFAULT},
    {EINVAL, WSAEINVAL},
    {EDOM, WSAEINVAL},
    {EMFILE, WSAEMFILE},
    {ENFILE, WSAEMFILE},
    {ENOMEM, WSAENOBUFS},
    {ENOBUFS, WSAENOBUFS},
    {ENOSPC, WSAENOBUFS},
    {EDESTADDRREQ, WSAEDESTADDRREQ},
    {EMSGSIZE, WSAEMSGSIZE},
    {EPROTOTYPE, WSAEPROTOTYPE},
    {ENOPROTOOPT, WSAENOPROTOOPT},
    {EPROTONOSUPPORT, WSAEPROTONOSUPPORT},
    {ESOCKTNOSUPPORT, WSAESOCKTNOSUPPORT},
    {EOPNOTSUPP, WSAEOPNOTSUPP},
    {EPFNOSUPPORT, WSAEPFNOSUPPORT},
    {EAFNOSUPPORT, WSAEAFNOSUPPORT},
    {EADDRINUSE, WSAEADDRINUSE},
    {EADDRNOTAVAIL, WSAEADDRNOTAVAIL},
    {ENODEV, WSAEADDRNOTAVAIL},
    {ENETDOWN, WSAENETDOWN},
    {ENETUNREACH, WSAENETUNREACH},
    {ENETRESET, WSAENETRESET},
    {EHOSTDOWN, WSAEHOSTDOWN},
    {EHOSTUNREACH, WSAEHOSTUNREACH},
    {ESHUTDOWN, WSAESHUTDOWN},
    {ETOOMANYREFS, WSAETOOMANYREFS},
};

struct StatusRow {
    DWORD status;
    int winsock;
    DWORD system;
};

constexpr StatusRow kStatusTable[] = {
    {kStatusSuccess, 0, ERROR_SUCCESS},
    {kStatusPending, WSA_IO_INCOMPLETE, ERROR_IO_PENDING},
    {kStatusBufferOverflow, WSAEMSGSIZE, ERROR_MORE_DATA},
    {0xC0000120, WSA_OPERATION_ABORTED, ERROR_OPERATION_ABORTED},
    {0xC000020D, WSAECONNRESET, ERROR_NETNAME_DELETED},
    {0xC0000236, WSAECONNREFUSED, ERROR_CONNECTION_REFUSED},
    {0xC0000241, WSAECONNABORTED, ERROR_CONNECTION_ABORTED},
    {0xC00000B5, WSAETIMEDOUT, ERROR_SEM_TIMEOUT},
    {0xC000023C, WSAENETUNREACH, ERROR_NETWORK_UNREACHABLE},
    {0xC000023D, WSAEHOSTUNREACH, ERROR_HOST_UNREACHABLE},
    {0xC000023A, WSAENOTCONN, 1229},  // no connection
    {0xC00000B0, WSAESHUTDOWN, 233},  // disconnected
    {0xC000009A, WSAENOBUFS, ERROR_NO_SYSTEM_RESOURCES},
    {0xC0000008, WSAENOTSOCK, ERROR_INVALID_HANDLE},
    {0xC0000005, WSAEFAULT, ERROR_NOACCESS},
    {0xC000000D, WSAEINVAL, ERROR_INVALID_PARAMETER},
    {0xC0000022, WSAEACCES, ERROR_ACCESS_DENIED},
    {0xC000020A, WSAEADDRINUSE, 1227},     // already associated
    {0xC0000141, WSAEADDRNOTAVAIL, 1214},  // no such network name
    {0xC00000BB, WSAEOPNOTSUPP, ERROR_NOT_SUPPORTED},
};

}  // namespace

int WinsockErrorFromErrno(int error) {
    if (error == 0) return 0;
    for (const ErrnoRow& row : kErrnoTable) {
        if (row.error == error) return row.winsock;
    }
    return WSASYSCALLFAILURE;
}

DWORD StatusFromWinsockError(int error) {
    for (const StatusRow& row : kStatusTable) {
        if (row.winsock == error) return row.status;
    }
    return 0xC0000001;  // unsuccessful
}

int WinsockErrorFromStatus(DWORD status) {
    for (const StatusRow& row : kStatusTable) {
        if (row.status == status) return row.winsock;
    }
    return (status & 0xC0000000) == 0xC0000000 ? WSAENETDOWN : 0;
}

DWORD SystemErrorFromStatus(DWORD status) {
    for (const StatusRow& row : kStatusTable) {
        if (row.status == status) return row.system;
    }
    return (status & 0xC0000000) == 0xC0000000 ? ERROR_GEN_FAILURE : ERROR_SUCCESS;
}

}  // namespace tcpip
