// The application's WSAOVERLAPPED, in which the state of its request stands: Internal is
// WSS_OPERATION_IN_PROGRESS while the request is under way; at its end InternalHigh is the number of bytes,
// Offset the flags, OffsetHigh the Winsock error, and Internal, written last, says that they are there. It is
// memory of the application's, which may be gone: no lock is held while it is touched, and what touches it
// runs under a guard.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include "base/atomic.h"

/// Internal of an application's WSAOVERLAPPED while the request is under way.
constexpr ULONG_PTR kOperationInProgress = 0x103;

/// How a request has ended.
struct Outcome {
    DWORD Bytes;
    DWORD Flags;
    INT Error;
};

/// The event of a record, or null. Its lowest bit only says that a completion port is not to be told.
inline HANDLE EventOf(const WSAOVERLAPPED* overlapped) {
    return reinterpret_cast<HANDLE>(reinterpret_cast<ULONG_PTR>(overlapped->hEvent) & ~ULONG_PTR{1});
}

/// Whether the request behind a record is still under way; everything that its completion wrote is visible
/// once it is not.
inline bool IsOverlappedInProgress(const WSAOVERLAPPED* overlapped) {
    return AcquireWord(overlapped->Internal) == kOperationInProgress;
}

/// Marks an application's record as under way. Resets its event, for which the application waits, unless it
/// has a completion routine: the event is then the application's own to use. `*lower` is told the position in
/// a file that the record may hold. 0, WSA_INVALID_HANDLE for an event that is none, or WSAEFAULT.
INT MarkInProgress(LPWSAOVERLAPPED overlapped, bool hasRoutine, LPWSAOVERLAPPED lower);

/// Writes how the request has ended, `internal` last: whoever polls the record goes on from there. False when
/// the record can't be written.
bool WriteOutcome(LPWSAOVERLAPPED overlapped, const Outcome& outcome, ULONG_PTR internal);
