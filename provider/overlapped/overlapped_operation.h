// One overlapped request: what the application gave, and the layer's record of it, from which the lower
// provider gets a WSAOVERLAPPED of the layer's own.
//
// A record is looked at by the thread that makes the lower call, until that has returned, and by the one that
// completes the request; each of them that may be overtaken by the other holds it (RecordHold). The last hold
// gives it back to the pool (ReleaseOverlappedRecord). The lower provider writes into its WSAOVERLAPPED, and
// where the application asked it to, until it has ended the request: whatever cannot be ended keeps its
// record.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <mswsock.h>
#include <windows.h>

#include <cstddef>

#include "base/atomic.h"
#include "provider/overlapped/caller_record.h"

struct CatalogLifetime;
struct LspEntry;
struct SocketContext;

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

/// How the application wants to be told of a request's end. A request with a routine leaves the record's
/// event alone, neither resetting nor setting it: the application may use it for itself.
struct CallerNotice {
    LPWSAOVERLAPPED Overlapped;
    LPWSAOVERLAPPED_COMPLETION_ROUTINE Routine = nullptr;
    LPWSATHREADID Thread = nullptr;  ///< which is to run the routine; null: the calling one
};

/// The application's buffers of a send or receive; none for other requests.
struct CallerBuffers {
    LPWSABUF Array = nullptr;
    DWORD Count = 0;
};

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
    static constexpr DWORD kFewBuffers = 2;

    LPWSABUF Buffers;  ///< the application's array, or a copy: FewBuffers, or one that the record owns
    WSABUF FewBuffers[kFewBuffers];
    DWORD BufferCount;
    DWORD Bytes;
    DWORD Flags;
    BOOL Peeks;      ///< a receive that leaves what it reads to the next one
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
    BOOL MadeSplit;  ///< the connection was split for this request, and goes with its failure
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

/// Zero-filled when taken, but for AwaitedEnd; given back when its completion has been reported.
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
    } Link;  ///< membership in the free list or that of the records in use
    OverlappedOperation*
        NextPending;            ///< the one that the alertable worker executes, or a look thread tells, next
    CatalogLifetime* Lifetime;  ///< keeps the heap with this record
    BOOL OwnsBuffers;           ///< Transfer.Buffers is a copy in the private heap
    Atomic<LONG> Holds;         ///< who may still look at the record
    BOOL Judged;                ///< the interception has said what it says before the lower call
    Outcome EndedWith;          ///< while the end waits to be told
    /// Above the port: odd while the request's end is awaited; who makes it even ends the request. It counts
    /// on through all uses of the record, so that a late packet cannot end the request of a later use. The
    /// last field: what comes before it is cleared with the record.
    Atomic<LONG> AwaitedEnd;
};

/// The record around the lower provider's overlapped structure.
inline OverlappedOperation* OperationOf(LPWSAOVERLAPPED providerOverlapped) {
    static_assert(offsetof(OverlappedOperation, ProviderOverlapped) == 0,
                  "the lower provider's structure comes first");
    return reinterpret_cast<OverlappedOperation*>(providerOverlapped);
}

/// Drops a hold; the last one gives the record back to the pool, with the buffer array that it owns.
void ReleaseOverlappedRecord(OverlappedOperation* operation);

/// Keeps a record readable after the lower call was made: its completion may overtake us.
class RecordHold {
  public:
    explicit RecordHold(OverlappedOperation* operation) : operation_(operation) {
        operation->Holds.Increment();
    }
    ~RecordHold() { ReleaseOverlappedRecord(operation_); }
    RecordHold(const RecordHold&) = delete;
    RecordHold& operator=(const RecordHold&) = delete;

  private:
    OverlappedOperation* operation_;
};
