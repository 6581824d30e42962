// What happens when an overlapped request has ended: the result is fetched, counted and written into the
// application's record, the application is told in the way it asked for, and the context is let go.
//
// A request is reported once: either here, or by FailOverlappedOperation when nothing of it reached the lower
// provider. A receive whose data is to be looked at is reported by a thread that may wait for that
// (look_threads.h). After the application has been told, its record is its own again and is not touched any
// more.
#include "provider/overlapped/overlapped_completion.h"

#include <guarded_call.h>

#include "provider/catalog/catalog.h"
#include "provider/catalog/lower_call.h"
#include "provider/interception.h"
#include "provider/operation_failure.h"
#include "provider/overlapped/look_threads.h"
#include "provider/overlapped/overlapped_execution.h"
#include "provider/overlapped/overlapped_records.h"
#include "provider/overlapped/received_data.h"

namespace {

/// The context that the record counts in, found without its handle. Null once the catalog that it belonged to
/// was given up.
SocketContext* ReferenceListedContext(const OverlappedOperation* operation) {
    const Locker global(qx::GlobalLock);
    if (operation->Lifetime->Heap != PrivateHeap) return nullptr;
    LspEntry* const provider = operation->Provider;
    const Locker list(provider->ListLock);
    SocketContext* context = provider->FirstSocket;
    while (context != nullptr && context != operation->SocketContext)
        context = context->Link.Next;
    if (context != nullptr) context->RefCount.Increment();
    return context;
}

/// The context that the record counts in, referenced; null when it was given up (its handle may be somebody
/// else's). A request must end even when Winsock fails to tell whose its handle is.
SocketContext* ReferenceContext(const OverlappedOperation* operation) {
    INT ignored = 0;
    SocketContext* const context = FindAndRefSocketContext(operation->CallerSocket, &ignored);
    if (context == nullptr) return ReferenceListedContext(operation);
    if (context == operation->SocketContext) return context;
    DerefSocketContext(context, &ignored);
    return nullptr;
}

/// The result of a request whose socket was closed below: the lower provider no longer knows the socket, but
/// it ended the request with the status in its record.
Outcome OutcomeAfterClose(const OverlappedOperation* operation) {
    const WSAOVERLAPPED& overlapped = operation->ProviderOverlapped;
    if (AcquireWord(overlapped.Internal) == 0) {
        return {static_cast<DWORD>(overlapped.InternalHigh), 0, 0};
    }
    return {0, 0, WSA_OPERATION_ABORTED};
}

Outcome FetchOutcome(OverlappedOperation* operation, SocketContext* context) {
    if (context->ProviderSocket == INVALID_SOCKET) return OutcomeAfterClose(operation);
    Outcome outcome = {};
    LspEntry* const provider = operation->Provider;
    const BOOL succeeded = CallLower(provider, BOOL{FALSE}, &outcome.Error, [&]() noexcept {
        return provider->LowerProcedures.lpWSPGetOverlappedResult(
            operation->ProviderSocket, &operation->ProviderOverlapped, &outcome.Bytes, FALSE, &outcome.Flags,
            &outcome.Error);
    });
    outcome.Error = succeeded ? 0 : LowerError(outcome.Error);
    // The socket may have been closed between the two.
    const bool closed =
        !succeeded && (outcome.Error == WSAENOTSOCK || context->ProviderSocket == INVALID_SOCKET);
    return closed ? OutcomeAfterClose(operation) : outcome;
}

/// Ends what an AcceptEx holds of its accepting socket. False when the socket is gone.
bool ReleaseAcceptingSocket(const OverlappedOperation* operation, const Outcome& outcome) {
    INT ignored = 0;
    const ContextReference accepting(operation->AcceptEx.AcceptingSocket, &ignored);
    if (!accepting) return false;
    if (outcome.Error == 0) accepting->BytesRecv.FetchAdd(outcome.Bytes);
    UncountRequest(accepting.Get());
    return true;
}

void Count(const OverlappedOperation* operation, SocketContext* context, Outcome* outcome) {
    const auto counter = RowOf(operation->Operation).Counter;
    if (operation->Operation == OverlappedType::kAcceptEx) {
        if (!ReleaseAcceptingSocket(operation, *outcome) && outcome->Error == 0) outcome->Error = WSAENOTSOCK;
    } else if (counter != nullptr && outcome->Error == 0 && !IsPeek(*operation)) {
        (context->*counter).FetchAdd(outcome->Bytes);
    }
}

/// Whether a request that succeeded has left its socket ready for another connection.
bool FreesSocket(const OverlappedOperation* operation) {
    switch (operation->Operation) {
        case OverlappedType::kDisconnectEx:
            return (operation->DisconnectEx.Flags & TF_REUSE_SOCKET) != 0;
        case OverlappedType::kTransmitFile:
            return (operation->TransmitFile.Flags & TF_REUSE_SOCKET) != 0;
        case OverlappedType::kTransmitPackets:
            return (operation->TransmitPackets.Flags & TF_REUSE_SOCKET) != 0;
        default:
            return false;
    }
}

/// A receive that got nothing more since the relay could not reach the server ends with the error of that,
/// not as if the server had closed the connection.
void TellBlockError(const OverlappedOperation* operation, const SocketContext* context, Outcome* outcome) {
    if (!IsReceive(operation->Operation)) return;
    const int blockError = context->BlockError;
    if (!context->Blocked || blockError == 0 || (outcome->Error == 0 && outcome->Bytes > 0)) return;
    *outcome = {0, 0, blockError};
}

/// What the end of a request means for the split of its socket's connection.
void TellInterception(const OverlappedOperation* operation, SocketContext* context, const Outcome& outcome) {
    if (outcome.Error == 0) {
        if (FreesSocket(operation)) NotifyReuse(context);
    } else if (operation->Operation == OverlappedType::kConnectEx && operation->ConnectEx.MadeSplit) {
        AbandonSplit(context);
    }
}

/// Uncounts the request; the last one of a closing socket ends its context. `reference` is dropped.
void LetGo(OverlappedOperation* operation, SocketContext* reference) {
    UncountRequest(reference);
    DerefSocketContext(reference, &operation->CleanupError);
    ReleaseOverlappedRecord(operation);
}

/// Runs on the application's thread. The record, and with it the context, lasts until the routine has
/// returned.
void CALLBACK RunCompletionRoutine(DWORD_PTR record) {
    auto* const operation = reinterpret_cast<OverlappedOperation*>(record);
    const LPWSAOVERLAPPED overlapped = operation->CallerOverlapped;
    LPWSAOVERLAPPED_COMPLETION_ROUTINE routine = nullptr;
    Outcome outcome = {};
    const bool readable = GuardedCall([&]() noexcept {
        outcome = {static_cast<DWORD>(overlapped->InternalHigh), overlapped->Offset,
                   static_cast<INT>(overlapped->OffsetHigh)};
        routine = reinterpret_cast<LPWSAOVERLAPPED_COMPLETION_ROUTINE>(overlapped->Internal);
        PublishWord(&overlapped->Internal, ULONG_PTR{0});
    });
    // An application that has given its record away waits for nothing any more.
    if (readable && routine != nullptr)
        routine(static_cast<DWORD>(outcome.Error), outcome.Bytes, overlapped, outcome.Flags);
    SocketContext* const context = ReferenceContext(operation);
    if (context != nullptr) {
        LetGo(operation, context);
    } else {
        ReleaseOverlappedRecord(operation);
    }
}

/// Queues the application's routine to its thread. False when that can't be done: the thread has ended.
bool QueueCompletionRoutine(OverlappedOperation* operation, const Outcome& outcome) {
    const auto routine = reinterpret_cast<ULONG_PTR>(operation->CallerCompletionRoutine);
    if (!WriteOutcome(operation->CallerOverlapped, outcome, routine)) return false;
    INT ignored = 0;
    return UpcallTable.lpWPUQueueApc(&operation->CallerThreadId, RunCompletionRoutine,
                                     reinterpret_cast<DWORD_PTR>(operation), &ignored) != SOCKET_ERROR;
}

void NotifyApplication(const OverlappedOperation* operation, const Outcome& outcome) {
    const LPWSAOVERLAPPED overlapped = operation->CallerOverlapped;
    HANDLE event = nullptr;
    if (!GuardedCall([&]() noexcept {
            overlapped->Offset = outcome.Flags;
            overlapped->OffsetHigh = static_cast<DWORD>(outcome.Error);
            overlapped->InternalHigh = outcome.Bytes;
            event = EventOf(overlapped);
        })) {
        return;
    }
    bool told = false;
    GuardedCall([&]() noexcept {
        INT ignored = 0;
        told = WPUCompleteOverlappedRequest(operation->CallerSocket, overlapped,
                                            static_cast<DWORD>(outcome.Error), outcome.Bytes,
                                            &ignored) != SOCKET_ERROR;
    });
    if (told) return;
    // Winsock has not told it: whoever polls or waits for the event must not wait for ever.
    if (WriteOutcome(overlapped, outcome, 0) && event != nullptr) SetEvent(event);
}

void CloseThreadId(WSATHREADID* thread) {
    INT ignored = 0;
    UpcallTable.lpWPUCloseThread(thread, &ignored);
}

/// Tells the application and lets the context go, whose reference is dropped.
void Tell(OverlappedOperation* operation, SocketContext* context, const Outcome& outcome) {
    if (operation->CallerCompletionRoutine == nullptr) {
        NotifyApplication(operation, outcome);
        LetGo(operation, context);
        return;
    }
    // Once the routine is queued, the record may be gone before the queueing call has returned.
    const bool closeThread = operation->CloseThread != FALSE;
    WSATHREADID thread = operation->CallerThreadId;
    if (QueueCompletionRoutine(operation, outcome)) {
        INT ignored = 0;
        DerefSocketContext(context, &ignored);
    } else {
        LetGo(operation, context);
    }
    if (closeThread) CloseThreadId(&thread);
}

/// Reports how a request has ended. `context`'s reference is dropped.
Outcome Report(OverlappedOperation* operation, SocketContext* context, Outcome outcome, Look look) {
    Count(operation, context, &outcome);
    if (BringsData(*operation, outcome)) JudgeReceived(operation, context, look, &outcome);
    TellInterception(operation, context, outcome);
    context->LastError = outcome.Error;
    Tell(operation, context, outcome);
    return outcome;
}

/// Reports a request that has ended as said, or as the lower provider says when that is WSA_IO_PENDING; or
/// leaves it to a thread that may wait for the analyzer, and reports WSA_IO_PENDING.
Outcome Complete(OverlappedOperation* operation, Outcome outcome) {
    SocketContext* const context = ReferenceContext(operation);
    if (context == nullptr) {
        ReleaseOverlappedRecord(operation);
        return {0, 0, WSAENOTSOCK};
    }
    const INT error = outcome.Error;
    if (error == WSA_IO_PENDING) outcome = FetchOutcome(operation, context);
    // A lower provider that no longer knows the socket speaks of one that the application has closed: the
    // request ends like any other that the close has cut short.
    if (error == WSAENOTSOCK && context->Closing) outcome = {0, 0, WSA_OPERATION_ABORTED};
    TellBlockError(operation, context, &outcome);
    if (LeaveToLookThread(operation, context, outcome)) return {0, 0, WSA_IO_PENDING};
    return Report(operation, context, outcome, Look::kNone);
}

}  // namespace

void TellEnd(OverlappedOperation* operation, SocketContext* context, Look look) {
    // A clean-up that did not wait longer has given the handle back: it may be somebody else's.
    if (context->LayeredSocket == operation->CallerSocket) {
        Report(operation, context, operation->EndedWith, look);
        return;
    }
    LetGo(operation, context);
}

void CALLBACK CompleteOverlappedOperation(DWORD error, DWORD bytes, LPWSAOVERLAPPED overlapped, DWORD flags) {
    if (overlapped != nullptr) Complete(OperationOf(overlapped), {bytes, flags, static_cast<INT>(error)});
}

Outcome CompleteInsideCall(OverlappedOperation* operation) {
    return Complete(operation, {0, 0, WSA_IO_PENDING});
}

void FailOverlappedOperation(OverlappedOperation* operation, SocketContext* context, INT error) {
    const Outcome outcome = {0, 0, error};
    WriteOutcome(operation->CallerOverlapped, outcome, 0);
    if (operation->Operation == OverlappedType::kAcceptEx) ReleaseAcceptingSocket(operation, outcome);
    if (operation->CloseThread) CloseThreadId(&operation->CallerThreadId);
    UncountRequest(context);
    ReleaseOverlappedRecord(operation);
}
