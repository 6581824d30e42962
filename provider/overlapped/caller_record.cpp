// How an application's record is written.
#include "provider/overlapped/caller_record.h"

#include <guarded_call.h>

INT MarkInProgress(LPWSAOVERLAPPED overlapped, bool hasRoutine) {
    INT error = 0;
    const bool readable = GuardedCall([&]() noexcept {
        const HANDLE event = hasRoutine ? nullptr : EventOf(overlapped);
        if (event != nullptr && !ResetEvent(event)) {
            error = WSA_INVALID_HANDLE;
            return;
        }
        overlapped->InternalHigh = 0;
        PublishWord(&overlapped->Internal, kOperationInProgress);
    });
    return readable ? error : WSAEFAULT;
}

bool WriteOutcome(LPWSAOVERLAPPED overlapped, const Outcome& outcome, ULONG_PTR internal) {
    return GuardedCall([&]() noexcept {
        overlapped->Offset = outcome.Flags;
        overlapped->OffsetHigh = static_cast<DWORD>(outcome.Error);
        overlapped->InternalHigh = outcome.Bytes;
        PublishWord(&overlapped->Internal, internal);
    });
}
