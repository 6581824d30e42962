// Hands one overlapped request to the lower provider.
#pragma once

#include <cstdint>

#include "provider/contexts/socket_context.h"
#include "provider/overlapped/overlapped_operation.h"

/// How the layer learns that a lower request has ended.
struct CompletionNotice {
    /// Completion routine for the lower calls that take one, with the thread that runs it; null with a
    /// completion port.
    LPWSAOVERLAPPED_COMPLETION_ROUTINE Routine = nullptr;
    LPWSATHREADID Thread = nullptr;
};

/// What is particular to one type of request.
struct OverlappedTypeRow {
    OverlappedType Type;
    bool TakesCompletionRoutine;  ///< the lower function can be given one
    /// Asks the interception what it says before the lower call: 0, or the error that the request ends with.
    int (*Judge)(OverlappedOperation* operation, SocketContext* context);
    /// Makes the lower call.
    int (*Execute)(OverlappedOperation* operation, SocketContext* context, const CompletionNotice& notice);
    /// The counter that gets the bytes of a request that succeeded; AcceptEx: of the accepting socket.
    Atomic<std::uint64_t> SocketContext::*Counter;
};

const OverlappedTypeRow& RowOf(OverlappedType type);

/// Shows a send to the analysis, or asks for a verdict for a connect, unless that has been done; it may wait
/// for the analyzer. 0, or the error that the request is refused with.
int JudgeOverlapped(OverlappedOperation* operation, SocketContext* context);

/// Judges the request, then makes the lower call. `context` is the socket's, referenced by the caller. 0 when
/// the lower call succeeded (its completion is still to come), WSA_IO_PENDING, or the Winsock error with
/// which it was refused: nothing will then come from below.
int CallLowerOverlapped(OverlappedOperation* operation, SocketContext* context,
                        const CompletionNotice& notice);
