// How an application's record is written.
#include "provider/overlapped/caller_record.h"

#include <guarded_call.h>

INT MarkInProgress(LPWSAOVERLAPPED overlapped, bool hasRoutine, LPWSAOVERLAPPED lower) {
    HANDLE event = nullptr;
    if (!GuardedCall([&]() noexcept {
            if (!hasRoutine) event = EventOf(overlapped);
            lower->Offset = overlapped->Offset;
            lower->OffsetHigh = overlapped->OffsetHigh;
        })) {
        return WSAEFAULT;
    }
    if (event != nullptr && !ResetEvent(event)) return WSA_INVALID_HANDLE;
    const bool writable = GuardedCall([&]() noexcept {
        overlapped->InternalHigh = 0;
        PublishWord(&overlapped->Internal, kOperationInProgress);
    });
    return writable ? 0 : WSAEFAULT;
}

bool WriteOutcome(LPWSAOVERLAPPED overlapped, const Outcome& outcome, ULONG_PTR internal) {
    return GuardedCall([&]() noexcept {
        overlapped->Offset = outcome.Flags;
        overlapped->OffsetHigh = static_cast<DWORD>(outcome.Error);
        overlapped->InternalHigh = outcome.Bytes;
        PublishWord(&overlapped->Internal, internal);
    });
}
