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
    /// Makes the lower call, after the analysis has had its look.
    int (*Execute)(OverlappedOperation* operation, SocketContext* context, const CompletionNotice& notice);
    /// The counter that gets the bytes of a request that succeeded; AcceptEx: of the accepting socket.
    Atomic<std::uint64_t> SocketContext::*Counter;
};

const OverlappedTypeRow& RowOf(OverlappedType type);

/// Shows a send to the analysis, or asks for a verdict for a connect, then makes the lower call. `context` is
/// the socket's, referenced by the caller. 0 when the lower call succeeded (its completion is still to come),
/// WSA_IO_PENDING, or the Winsock error with which it was refused: nothing will then come from below.
int CallLowerOverlapped(OverlappedOperation* operation, SocketContext* context,
                        const CompletionNotice& notice);
