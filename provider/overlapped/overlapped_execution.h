// Hands one overlapped request to the lower provider.
#pragma once

#include "provider/overlapped/overlapped_manager.h"

/// How the layer learns that a lower request has ended.
struct CompletionNotice {
    /// Completion routine for the lower calls that take one, with the thread that runs it; null with a
    /// completion port.
    LPWSAOVERLAPPED_COMPLETION_ROUTINE Routine = nullptr;
    LPWSATHREADID Thread = nullptr;
};

/// Shows a send to the analysis, or asks for a verdict for a connect, then makes the lower call. `context` is
/// the socket's, referenced by the caller. 0 when the lower call succeeded (its completion is still to come),
/// WSA_IO_PENDING, or the Winsock error with which it was refused: nothing will then come from below.
int CallLowerOverlapped(OverlappedOperation* operation, SocketContext* context,
                        const CompletionNotice& notice);

/// Whether the lower function of this type can be given a completion routine.
bool TakesCompletionRoutine(OverlappedType type);
