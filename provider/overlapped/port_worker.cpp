// Who ends a request: the worker that gets its packet, or the thread that made the lower call when there will
// be none. Both claim the end through the record's AwaitedEnd.
#include "provider/overlapped/port_worker.h"

#include "provider/catalog/lsp_entry.h"
#include "provider/overlapped/caller_record.h"
#include "provider/overlapped/overlapped_completion.h"

namespace {

constexpr DWORD kStopPacket = 0xFFFFFFFF;

LONG NumberAfter(LONG number) {
    return static_cast<LONG>(static_cast<ULONG>(number) + 1);
}

/// Whether the system itself ends the lower provider's requests: it writes to the record before it queues the
/// packet. A layered provider, or one whose sockets are no handles of the system, may leave the record alone.
bool SystemEndsRequests(const LspEntry* provider) {
    return !provider->LowerIsLayered() && (provider->NextProvider.dwServiceFlags1 & XP1_IFS_HANDLES) != 0;
}

/// Lets a record be completed once, by its packet or by the thread that made the lower call. The number to
/// claim its end with.
LONG AwaitEnd(OverlappedOperation* operation) {
    // Also where packets are not skipped: the record's last request may have been another socket's, whose
    // packet came nevertheless.
    if (SystemEndsRequests(operation->Provider))
        PublishWord(&operation->ProviderOverlapped.Internal, kOperationInProgress);
    const LONG end = NumberAfter(operation->AwaitedEnd) | 1;
    operation->AwaitedEnd.Publish(end);
    return end;
}

/// True for one caller: it completes the request.
bool ClaimEnd(OverlappedOperation* operation, LONG end) {
    return operation->AwaitedEnd.StoreIfStill(end, NumberAfter(end));
}

/// Whether the worker that has the packet is to complete the request. Not every system keeps its promise to
/// queue no packet for what ended inside the call, or failed there: one that comes nevertheless finds its
/// record free, or under way again for another request.
bool ClaimEndByPacket(LPWSAOVERLAPPED overlapped) {
    OverlappedOperation* const operation = OperationOf(overlapped);
    // In this order: a request that this end belongs to was marked as in progress before.
    const LONG end = operation->AwaitedEnd.Acquire();
    return (end & 1) != 0 && !IsOverlappedInProgress(overlapped) && ClaimEnd(operation, end);
}

/// Lets a request that succeeds inside its lower call be reported from there, without the detour by a worker.
/// True when it queues no packet any more. Layered sockets are completed through Winsock, which queues one
/// always; datagram sockets of older systems mix both.
bool SkipPacketsOfSuccess(const SocketContext* context) {
    const LspEntry* const provider = context->Provider;
    return provider->NextProvider.iSocketType == SOCK_STREAM && SystemEndsRequests(provider) &&
           SetFileCompletionNotificationModes(reinterpret_cast<HANDLE>(SOCKET{context->ProviderSocket}),
                                              FILE_SKIP_COMPLETION_PORT_ON_SUCCESS);
}

}  // namespace

Association AssociateLowerSocket(const OverlappedOperation* operation, SocketContext* context, HANDLE port) {
    if (!AcquireSocketLock(context)) return Association::kFailed;
    Association association = Association::kMade;
    if (context->Closing) {
        // The value may be another socket's by now. One that is not closing stays open while its lock is
        // held.
        association = Association::kClosing;
    } else if (context->CompletionPort == nullptr) {
        context->CompletionPort = CreateIoCompletionPort(reinterpret_cast<HANDLE>(operation->ProviderSocket),
                                                         port, operation->CallerSocket, 0);
        if (context->CompletionPort == nullptr) {
            association =
                GetLastError() == ERROR_INVALID_PARAMETER ? Association::kImpossible : Association::kFailed;
        } else {
            context->SkipsPackets = SkipPacketsOfSuccess(context);
        }
    }
    if (association == Association::kMade && context->SkipsPackets)
        association = Association::kMadeForLaterEnds;
    ReleaseSocketLock(context);
    return association;
}

CompletionNotice NoticeToPort(OverlappedOperation* operation) {
    const bool hasThread = operation->CallerThreadId.ThreadHandle != nullptr;
    return {nullptr, hasThread ? &operation->CallerThreadId : nullptr};
}

int ExecuteAbovePort(OverlappedOperation* operation, SocketContext* context, bool skipsPackets) {
    const LONG end = AwaitEnd(operation);
    const RecordHold hold(operation);
    const int result = CallLowerOverlapped(operation, context, NoticeToPort(operation));
    if (result == WSA_IO_PENDING || (result == 0 && !skipsPackets)) return WSA_IO_PENDING;
    if (!ClaimEnd(operation, end)) return WSA_IO_PENDING;
    if (result == 0) {
        CompleteOverlappedOperation(WSA_IO_PENDING, 0, &operation->ProviderOverlapped, 0);
        return WSA_IO_PENDING;
    }
    FailOverlappedOperation(operation, context, result);
    return result;
}

DWORD WINAPI PortWorker(LPVOID port) {
    for (;;) {
        DWORD bytes = 0;
        ULONG_PTR key = 0;
        LPOVERLAPPED overlapped = nullptr;
        const BOOL succeeded = GetQueuedCompletionStatus(port, &bytes, &key, &overlapped, INFINITE);
        if (overlapped == nullptr) {
            // The stop packet, or a port that can't be waited for any more.
            if (!succeeded || bytes == kStopPacket) return 0;
            continue;
        }
        // The completion asks the lower provider for the real result.
        if (ClaimEndByPacket(overlapped)) CompleteOverlappedOperation(WSA_IO_PENDING, bytes, overlapped, 0);
    }
}

bool PostStopPackets(HANDLE port, DWORD count) {
    constexpr DWORD kMostTries = 5;
    constexpr DWORD kPauseMilliseconds = 10;
    DWORD posted = 0;
    // Memory for a packet may be short for a moment only.
    for (DWORD tries = 0; tries < kMostTries; ++tries) {
        if (tries > 0) Sleep(kPauseMilliseconds);
        while (posted < count && PostQueuedCompletionStatus(port, kStopPacket, 0, nullptr))
            ++posted;
        if (posted == count) return true;
    }
    return false;
}
