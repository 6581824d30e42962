// The one place where errors change their language: the kernel's errno values, Winsock errors, and the status
// codes that a finished overlapped request carries in its `Internal`.
#pragma once

#include <winsock2.h>

namespace tcpip {

// Status codes of finished requests. Those with the top two bits 10 are warnings: data did arrive.
constexpr DWORD kStatusSuccess = 0;
constexpr DWORD kStatusPending = 0x103;
constexpr DWORD kStatusBufferOverflow = 0x80000005;

/// The Winsock error for an errno value; 0 for 0, WSASYSCALLFAILURE for one that no operation expects.
int WinsockErrorFromErrno(int error);

/// The status that a request failing with this Winsock error carries; 0 for 0.
DWORD StatusFromWinsockError(int error);

/// What the result of a request with this status is for Winsock; 0 for success.
int WinsockErrorFromStatus(DWORD status);

/// What a completion port's waiter finds as its last error for this status; 0 for success.
DWORD SystemErrorFromStatus(DWORD status);

}  // namespace tcpip
