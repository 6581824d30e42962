// The overlapped manager with a completion port: the lower call is made on the application's thread, and one
// worker per processor takes the completions.
#pragma once

#include "provider/overlapped/overlapped_execution.h"

/// Whether a lower socket's completions come to the layer's port.
enum class Association {
    kMade,
    kMadeForLaterEnds,  ///< but for requests that succeed inside their lower call
    kImpossible,        ///< they go to somebody else's port
    kClosing,           ///< the application is closing the socket
    kFailed,
};

/// Associates the lower socket with the layer's port on its first overlapped request. Takes the context's
/// lock.
Association AssociateLowerSocket(const OverlappedOperation* operation, SocketContext* context, HANDLE port);

/// Makes the lower call; the completion arrives through the port, unless the request ends here. Gives the
/// record up. WSA_IO_PENDING or a Winsock error.
int ExecuteAbovePort(OverlappedOperation* operation, SocketContext* context, bool skipsPackets);

/// How the lower provider ends a request that has no routine of the layer's: the port, or the event, is told.
CompletionNotice NoticeToPort(OverlappedOperation* operation);

/// A worker's thread; its argument is the port.
DWORD WINAPI PortWorker(LPVOID port);

/// Posts the packet that ends a worker to each of them. False when one could not be posted.
bool PostStopPackets(HANDLE port, DWORD count);
