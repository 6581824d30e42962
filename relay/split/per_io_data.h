// The record of one overlapped request of the relay: what it is for, and the memory that the lower provider
// reads or writes until its packet comes. A record belongs to whoever has it in hand; posted, to the port,
// until the relay worker takes its packet.
//
// Records are pooled. `PerIODataPoolLock` guards the pool; it is a leaf.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include <cstddef>
#include <memory>

#include "base/process_locks.h"
#include "messages/message_pool.h"

/// Operation codes of the relay's overlapped requests.
enum RelayOperation : DWORD {
    RelayOpAccept = 0,
    RelayOpClientRecv = 1,
    RelayOpServerRecv = 2,
    RelayOpSpyRecv = 3,
    RelayOpClientSend = 4,
    RelayOpServerSend = 5,
    RelayOpSpySend = 6,
    RelayOpConnect = 7,
    RelayOpLeave = 8,  ///< none of the lower provider's: the application closes its socket
};

struct PerIOData {
    OVERLAPPED Overlapped = {};  ///< first: a packet's pointer to it is the record
    DWORD Operation = RelayOpAccept;
    SOCKET Socket = INVALID_SOCKET;     ///< that it was posted on
    DWORD RelayIndex = 0;               ///< of the connection that it works for; 0 for accepts
    BufferPiece Buffer = {0, nullptr};  ///< of the arena, the record's own; or empty
    DWORD BufferSize = 0;               ///< as it was allocated, however far Buffer has been trimmed
    bool BufferIsPartials = false;      ///< Buffer lies in memory of PartialMessage's
    std::unique_ptr<BufferPiece[]> MessageBuffers;  ///< what is sent of a message, in its memory
    DWORD MessageBufferCount = 0;
    DWORD Bytes = 0;  ///< of an answer's data that is sent
    DWORD Flags = 0;
    PooledResponse PartialMessage;  ///< the answer received so far, with a receive on the spy socket
    PooledRequest Request;          ///< being sent to the analyzer
    PooledResponse Response;        ///< whose data is being sent
};

inline PerIOData* PerIODataOf(OVERLAPPED* overlapped) {
    static_assert(offsetof(PerIOData, Overlapped) == 0, "a packet's pointer is the record");
    return reinterpret_cast<PerIOData*>(overlapped);
}

/// Gives a record back, with all that it owns.
void ReleasePerIOData(PerIOData* record) noexcept;

struct ReturnPerIOData {
    void operator()(PerIOData* record) const noexcept { ReleasePerIOData(record); }
};
using PooledPerIOData = std::unique_ptr<PerIOData, ReturnPerIOData>;

/// A blank record for an operation; empty without memory.
PooledPerIOData AcquirePerIOData(DWORD operation, SOCKET s, DWORD relayIndex) noexcept;

/// Gives the record a buffer of the arena's; false without memory.
bool AllocateBuffer(PerIOData* record, DWORD size) noexcept;

/// Frees the pooled records.
void FreePerIODataPool() noexcept;
