// Carries out the application's overlapped requests: the lower provider is given a record of the layer's own,
// so that the layer sees each completion before the application does.
//
// The application's WSAOVERLAPPED holds a request's state: Internal stays WSS_OPERATION_IN_PROGRESS while it
// is under way; at completion InternalHigh is the number of bytes, Offset the flags, OffsetHigh the Winsock
// error. OverlappedLock guards the lists and the manager's handles; it is taken inside a context's lock,
// never outside.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <mswsock.h>
#include <windows.h>

#include "base/atomic.h"
#include "provider/catalog/lsp_entry.h"
#include "provider/contexts/socket_context.h"

/// Kinds of overlapped requests, as stored in a record.
enum class OverlappedType : DWORD {
    kIoctl = 1,
    kRecv = 2,
    kRecvFrom = 3,
    kSend = 4,
    kSendTo = 5,
    kTransmitFile = 6,
    kAcceptEx = 7,
    kConnectEx = 8,
    kDisconnectEx = 9,
    kTransmitPackets = 10,
    kWsaRecvMsg = 11,
};

/// Internal of an application's WSAOVERLAPPED while the request is under way.
constexpr ULONG_PTR kOperationInProgress = 0x103;

struct CatalogLifetime;

struct IoctlArguments {
    DWORD Code;
    LPVOID Input;
    DWORD InputLength;
    LPVOID Output;
    DWORD OutputLength;
    DWORD BytesReturned;
};

/// Send, receive, and both with an address.
struct TransferArguments {
    LPWSABUF Buffers;  ///< the application's array, or a copy in the private heap that the record owns
    DWORD BufferCount;
    DWORD Bytes;
    DWORD Flags;
    sockaddr* From;  ///< RECVFROM: the application's own, with its length
    LPINT FromLength;
    SOCKADDR_STORAGE To;  ///< SENDTO: a copy of the destination
    INT ToLength;
};

struct TransmitFileArguments {
    HANDLE File;
    DWORD BytesToWrite;
    DWORD BytesPerSend;
    LPTRANSMIT_FILE_BUFFERS Buffers;
    DWORD Flags;
};

struct AcceptExArguments {
    SOCKET AcceptingSocket;  ///< the application's handle
    SOCKET AcceptingProviderSocket;
    PVOID Output;
    DWORD ReceiveLength;
    DWORD LocalAddressLength;
    DWORD RemoteAddressLength;
    DWORD BytesReceived;
};

struct ConnectExArguments {
    SOCKADDR_STORAGE Name;
    INT NameLength;
    PVOID SendBuffer;
    DWORD SendLength;
    DWORD BytesSent;
};

struct DisconnectExArguments {
    DWORD Flags;
    DWORD Reserved;
};

struct TransmitPacketsArguments {
    LPTRANSMIT_PACKETS_ELEMENT Packets;
    DWORD ElementCount;
    DWORD SendSize;
    DWORD Flags;
};

struct WsaRecvMsgArguments {
    LPWSAMSG Message;
    DWORD BytesReceived;
};

/// One overlapped request. Zero-filled when taken, but for AwaitedEnd; given back when its completion has
/// been reported.
struct OverlappedOperation {
    WSAOVERLAPPED ProviderOverlapped;  ///< given to the lower provider; the record is found from its address
    LspEntry* Provider;
    struct SocketContext* SocketContext;  ///< its OutstandingAsync counts this record
    SOCKET CallerSocket;
    SOCKET ProviderSocket;
    INT CleanupError;
    BOOL CloseThread;  ///< CallerThreadId was opened by the layer
    union {
        IoctlArguments Ioctl;
        TransferArguments Transfer;
        TransmitFileArguments TransmitFile;
        AcceptExArguments AcceptEx;
        ConnectExArguments ConnectEx;
        DisconnectExArguments DisconnectEx;
        TransmitPacketsArguments TransmitPackets;
        WsaRecvMsgArguments WSARecvMsg;
    };
    OverlappedType Operation;
    WSATHREADID CallerThreadId;
    LPWSAOVERLAPPED CallerOverlapped;
    LPWSAOVERLAPPED_COMPLETION_ROUTINE CallerCompletionRoutine;
    struct {
        OverlappedOperation* Next;
        OverlappedOperation* Previous;
    } Link;                            ///< membership in the free list or that of the records in use
    OverlappedOperation* NextPending;  ///< the one that the alertable worker executes next
    CatalogLifetime* Lifetime;         ///< keeps the heap with this record
    BOOL OwnsBuffers;                  ///< Transfer.Buffers is a copy in the private heap
    Atomic<LONG> Holds;                ///< who may still look at the record
    Atomic<LONG> RefusedWith;          ///< not 0: the error to report whatever the lower provider says
    /// Above the port: odd while the request's end is awaited; who makes it even ends the request. It counts
    /// on through all uses of the record, so that a late packet cannot end the request of a later use. The
    /// last field: what comes before it is cleared with the record.
    Atomic<LONG> AwaitedEnd;
};

/// Starts the workers. 0, or WSASYSCALLFAILURE.
int StartOverlappedManager();

/// Cancels what is under way and ends the workers, waiting for at most 5 seconds: what they complete
/// meanwhile is reported to the application. They take GlobalLock, so the caller must not hold it while there
/// are requests. False when a worker has not ended: it may still execute the library's code.
bool StopOverlappedManager();

/// Returns the records of the free list to the private heap. The manager is stopped.
void FreeOverlappedRecords();

/// A record for a request on `context` (referenced by the caller), marked in progress and counted as
/// outstanding; the caller stores the type's arguments. `buffers` and `count` are kept for sends and
/// receives. Null with `*error`.
OverlappedOperation* PrepareOverlappedOperation(SocketContext* context, OverlappedType type, LPWSABUF buffers,
                                                DWORD count, LPWSAOVERLAPPED overlapped,
                                                LPWSAOVERLAPPED_COMPLETION_ROUTINE completionRoutine,
                                                LPWSATHREADID threadId, LPINT error);

/// Hands the record to the lower provider and gives it up. 0 (completed at once), WSA_IO_PENDING or a Winsock
/// error.
int QueueOverlappedOperation(OverlappedOperation* operation, SocketContext* context);

/// Ends a request of which nothing has reached the lower provider (or which it refused) inside the
/// application's call: writes its state and frees the record; the application learns the error from the
/// call's result.
void FailOverlappedOperation(OverlappedOperation* operation, SocketContext* context, INT error);

/// Reports a request as done: writes its state into the application's record, tells the application and frees
/// the layer's. Null is ignored. Also the completion routine of lower calls, hence its shape.
void CALLBACK CompleteOverlappedOperation(DWORD error, DWORD bytes, LPWSAOVERLAPPED overlapped, DWORD flags);

/// Whether the request behind an application's record is still under way; everything that its completion
/// wrote is visible once it is not.
inline bool IsOverlappedInProgress(const WSAOVERLAPPED* overlapped) {
    return AcquireWord(overlapped->Internal) == kOperationInProgress;
}
