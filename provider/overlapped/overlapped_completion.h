// The end of an overlapped request: it is reported once, by one of these functions.
#pragma once

#include "provider/overlapped/overlapped_operation.h"
#include "provider/overlapped/received_data.h"

/// Reports a request as done: writes its state into the application's record, tells the application and frees
/// the layer's. With the error WSA_IO_PENDING the lower provider is asked for the result. Null is ignored.
/// Also the completion routine of lower calls, hence its shape. Takes GlobalLock and the contexts' locks; no
/// lock may be held.
void CALLBACK CompleteOverlappedOperation(DWORD error, DWORD bytes, LPWSAOVERLAPPED overlapped, DWORD flags);

/// Reports a request that succeeded inside its lower call in the same way. What the application was told.
Outcome CompleteInsideCall(OverlappedOperation* operation);

/// Reports a request that has ended as its record says, on a look thread. The record, and the context's
/// reference, are given up.
void TellEnd(OverlappedOperation* operation, SocketContext* context, Look look);

/// Ends a request of which nothing has reached the lower provider (or which it refused) inside the
/// application's call: writes its state and frees the record; the application learns the error from the
/// call's result.
void FailOverlappedOperation(OverlappedOperation* operation, SocketContext* context, INT error);
