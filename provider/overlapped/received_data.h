// What an overlapped receive has brought, when it has ended: who sent it, and whether the application may
// have it.
#pragma once

#include "provider/contexts/socket_context.h"
#include "provider/overlapped/overlapped_operation.h"

/// Whether the data of a receive that has ended is looked at.
enum class Look {
    kNone,
    kWanted,
    kTooLate,  ///< it should be, but nobody waits for the analyzer any more
};

inline bool IsReceive(OverlappedType type) {
    return type == OverlappedType::kRecv || type == OverlappedType::kRecvFrom;
}

/// What is peeked at comes again: it is neither counted nor looked at.
inline bool IsPeek(const OverlappedOperation& operation) {
    return IsReceive(operation.Operation) && operation.Transfer.Peeks;
}

/// Whether there is something to look at. A receive that brings nothing shows nothing of what the peer says.
inline bool BringsData(const OverlappedOperation& operation, const Outcome& outcome) {
    return IsReceive(operation.Operation) && outcome.Error == 0 && outcome.Bytes > 0 &&
           !operation.Transfer.Peeks;
}

/// Keeps a datagram's source, has the data looked at if that is wanted, which may wait for the analyzer, and
/// replaces the outcome when the application is not to have the data.
void JudgeReceived(OverlappedOperation* operation, SocketContext* context, Look look, Outcome* outcome);
