// Addresses as text, and the two operations that these protocols have no use for.
#include <cstring>
#include <string>

#include "platform/tcpip/address.h"
#include "platform/tcpip/operations.h"

namespace tcpip {
namespace {

using platform::PlatformCall;

bool MatchesInfo(const WSAPROTOCOL_INFOW* info, int family) {
    return info == nullptr || info->iAddressFamily == family;
}

}  // namespace

INT WSPAPI TcpipAddressToString(LPSOCKADDR address, DWORD addressLength, LPWSAPROTOCOL_INFOW info,
                                LPWSTR text, LPDWORD textLength, LPINT lpErrno) {
    return RunOperation(
        "lower WSPAddressToString", WSAENOBUFS, SOCKET_ERROR, lpErrno, [&](PlatformCall&, int* result) {
            if (address == nullptr || text == nullptr || textLength == nullptr) return WSAEFAULT;
            if (addressLength < sizeof(ADDRESS_FAMILY)) return WSAEINVAL;
            const int family = address->sa_family;
            if ((family != AF_INET && family != AF_INET6) || !MatchesInfo(info, family)) return WSAEINVAL;
            Endpoint endpoint;
            const int error =
                ReadAddress(address, static_cast<int>(addressLength), family == AF_INET6, &endpoint);
            if (error != 0) return error;
            char narrow[kMaximumAddressText];
            const DWORD needed = FormatAddress(endpoint, narrow) + 1;
            const DWORD room = *textLength;
            *textLength = needed;
            if (room < needed) return WSAEFAULT;
            for (DWORD i = 0; i < needed; ++i)
                text[i] = static_cast<WCHAR>(narrow[i]);
            *result = 0;
            return 0;
        });
}

INT WSPAPI TcpipStringToAddress(LPWSTR text, INT family, LPWSAPROTOCOL_INFOW info, LPSOCKADDR address,
                                LPINT addressLength, LPINT lpErrno) {
    return RunOperation("lower WSPStringToAddress", WSAENOBUFS, SOCKET_ERROR, lpErrno,
                        [&](PlatformCall&, int* result) {
                            if (text == nullptr || address == nullptr || addressLength == nullptr)
                                return WSAEFAULT;
                            if ((family != AF_INET && family != AF_INET6) || !MatchesInfo(info, family))
                                return WSAEINVAL;
                            char narrow[kMaximumAddressText] = {};
                            for (unsigned i = 0; text[i] != 0; ++i) {
                                if (i + 1 == kMaximumAddressText || text[i] >= 0x80) return WSAEINVAL;
                                narrow[i] = static_cast<char>(text[i]);
                            }
                            Endpoint endpoint;
                            if (!ParseAddress(narrow, family == AF_INET6, &endpoint)) return WSAEINVAL;
                            *result = 0;
                            const int error = WriteAddress(endpoint, address, addressLength);
                            if (error != 0) *addressLength = AddressLength(endpoint.v6);
                            return error;
                        });
}

BOOL WSPAPI TcpipGetQOSByName(SOCKET s, LPWSABUF, LPQOS, LPINT lpErrno) {
    return RunOperation("lower WSPGetQOSByName", WSAEOPNOTSUPP, FALSE, lpErrno, [&](PlatformCall&, BOOL*) {
        // There are no templates of service quality to be found.
        return SocketUse(s) ? WSAEOPNOTSUPP : WSAENOTSOCK;
    });
}

int WSPAPI TcpipCancelBlockingCall(LPINT lpErrno) {
    return RunOperation("lower WSPCancelBlockingCall", WSAEOPNOTSUPP, SOCKET_ERROR, lpErrno,
                        [](PlatformCall&, int*) {
                            // Only a blocking hook could call this while its thread waits, and hooks are not
                            // called.
                            return WSAEOPNOTSUPP;
                        });
}

}  // namespace tcpip
