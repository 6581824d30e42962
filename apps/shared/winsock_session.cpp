// Winsock start-up and error names; see the header.
#include "apps/shared/winsock_session.h"

#include <stdexcept>

namespace {

struct ErrorName {
    int error;
    const char* name;
};

constexpr ErrorName kErrorNames[] = {
    {WSAEACCES, "WSAEACCES"},
    {WSAEFAULT, "WSAEFAULT"},
    {WSAEINVAL, "WSAEINVAL"},
    {WSAEWOULDBLOCK, "WSAEWOULDBLOCK"},
    {WSAENOTSOCK, "WSAENOTSOCK"},
    {WSAEADDRINUSE, "WSAEADDRINUSE"},
    {WSAEADDRNOTAVAIL, "WSAEADDRNOTAVAIL"},
    {WSAENETUNREACH, "WSAENETUNREACH"},
    {WSAECONNABORTED, "WSAECONNABORTED"},
    {WSAECONNRESET, "WSAECONNRESET"},
    {WSAENOBUFS, "WSAENOBUFS"},
    {WSAENOTCONN, "WSAENOTCONN"},
    {WSAETIMEDOUT, "WSAETIMEDOUT"},
    {WSAECONNREFUSED, "WSAECONNREFUSED"},
    {WSAEHOSTUNREACH, "WSAEHOSTUNREACH"},
};

}  // namespace

WinsockSession::WinsockSession() {
    WSADATA data = {};
    const int error = WSAStartup(MAKEWORD(2, 2), &data);
    if (error != 0) throw std::runtime_error("cannot start Winsock: " + DescribeWinsockError(error));
}

WinsockSession::~WinsockSession() {
    WSACleanup();
}

std::string DescribeWinsockError(int error) {
    for (const ErrorName& known : kErrorNames) {
        if (known.error == error) return std::to_string(error) + " (" + known.name + ")";
    }
    return std::to_string(error);
}

void ThrowLastWinsockError(const std::string& what) {
    throw std::runtime_error(what + ": " + DescribeWinsockError(WSAGetLastError()));
}
