// See relay_requests.h. A request that fails at once gets its packet from here: without bytes, as a
// connection that has ended gives one. WSAEWOULDBLOCK counts as pending: a lower provider that has taken the
// request all the same will write into its record, and one that has not leaves a record behind, which is the
// lesser harm.
#include "relay/split/relay_requests.h"

#include "base/trace.h"
#include "messages/guarded_winsock.h"
#include "provider/guarded_sockets.h"
#include "relay/split/relay_completion_port.h"

Atomic<LONG> PostedRequests;

namespace {

Atomic<bool> ImmediateReceiveTraced;

bool IsPending(int error) {
    return error == WSA_IO_PENDING || error == WSAEWOULDBLOCK;
}

Atomic<DWORD>& PendingSendsOf(DWORD operation, RelayConnection& connection) {
    if (operation == RelayOpSpySend) return connection.PendingSpySends;
    return connection.*SideOf(operation).PendingSends;
}

/// Ends a request that failed at once. False when the port can't tell it either.
bool EndAtOnce(PooledPerIOData& record) {
    if (!PostQueuedCompletionStatus(RelayCompletionPort, 0, 0, &record->Overlapped)) return false;
    (void)record.release();
    return true;
}

/// On a busy connection it is the rule that there is something to receive already: one line says so.
void TraceImmediateReceive(SOCKET s, DWORD operation, DWORD relayIndex) {
    if (ImmediateReceiveTraced) return;
    ImmediateReceiveTraced = true;
    Trace("ERROR:Posting WSARecv returned immediately on socket %d, operation %d, relayIndex:%d. Error:%d\n",
          static_cast<int>(s), static_cast<int>(operation), static_cast<int>(relayIndex), 0);
}

}  // namespace

PooledPerIOData TakeFromPort(OVERLAPPED* overlapped) {
    PostedRequests.Decrement();
    return PooledPerIOData(PerIODataOf(overlapped));
}

bool PostRelayReceive(SOCKET s, DWORD size, RelayOperation operation, DWORD relayIndex,
                      PooledResponse partialMessage) {
    if (size == 0) {
        Trace("ERROR: We have a buffer size problem here!");
        return true;
    }
    PooledPerIOData record = AcquirePerIOData(operation, s, relayIndex);
    if (record == nullptr || !AllocateBuffer(record.get(), size)) return false;
    record->PartialMessage = std::move(partialMessage);
    return PostRelayReceive(std::move(record));
}

bool PostRelayReceive(PooledPerIOData record) {
    const SOCKET s = record->Socket;
    const DWORD operation = record->Operation;
    const DWORD relayIndex = record->RelayIndex;
    record->Overlapped = {};
    record->Flags = 0;
    PostedRequests.Increment();
    const int result = SafeWSARecv(s, reinterpret_cast<LPWSABUF>(&record->Buffer), 1, nullptr, &record->Flags,
                                   &record->Overlapped, nullptr);
    const int error = result == 0 ? 0 : WSAGetLastError();
    if (result == 0 || IsPending(error)) {
        (void)record.release();
        if (result == 0) TraceImmediateReceive(s, operation, relayIndex);
        return true;
    }
    Trace("ERROR:Failed to post receive data on socket %d, operation %d, relayIndex:%d. Error:%d\n",
          static_cast<int>(s), static_cast<int>(operation), static_cast<int>(relayIndex), error);
    if (EndAtOnce(record)) return true;
    PostedRequests.Decrement();
    return false;
}

bool PostRelaySend(PooledPerIOData record, RelayConnection& connection) {
    const DWORD operation = record->Operation;
    record->Overlapped = {};
    BufferPiece* const pieces =
        record->MessageBuffers != nullptr ? record->MessageBuffers.get() : &record->Buffer;
    const DWORD count = record->MessageBuffers != nullptr ? record->MessageBufferCount : 1;
    AddPendingSend(operation, connection);
    PostedRequests.Increment();
    const int result = SafeWSASend(record->Socket, reinterpret_cast<LPWSABUF>(pieces), count, nullptr, 0,
                                   &record->Overlapped, nullptr);
    const int error = result == 0 ? 0 : WSAGetLastError();
    if (result == 0 || IsPending(error)) {
        (void)record.release();
        return true;
    }
    Trace("ERROR:Send to client failed on socket %d. relayIndex:%d. Error:%d\n",
          static_cast<int>(record->Socket), static_cast<int>(record->RelayIndex), error);
    // Nothing may follow what is missing, until its packet closes the side.
    connection.*SideOf(operation).Connected = FALSE;
    if (EndAtOnce(record)) return true;
    PostedRequests.Decrement();
    UncountPendingSend(operation, connection);
    return false;
}

bool PostServerConnect(const RelayConnection& connection, const SOCKADDR_STORAGE& name, int length) {
    PooledPerIOData record = AcquirePerIOData(RelayOpConnect, connection.ServerSocket, connection.RelayIndex);
    if (record == nullptr) {
        WSASetLastError(WSAENOBUFS);
        return false;
    }
    PostedRequests.Increment();
    const BOOL connected = SafeConnectEx(record->Socket, reinterpret_cast<const sockaddr*>(&name), length,
                                         nullptr, 0, &record->Bytes, &record->Overlapped);
    // One that is connected at once gets its packet as well.
    if (connected || IsPending(WSAGetLastError())) {
        (void)record.release();
        return true;
    }
    PostedRequests.Decrement();
    return false;
}

void AddPendingSend(DWORD operation, RelayConnection& connection) {
    PendingSendsOf(operation, connection).Increment();
}

void UncountPendingSend(DWORD operation, RelayConnection& connection) {
    Atomic<DWORD>& pending = PendingSendsOf(operation, connection);
    // A side that ended has taken its count along.
    for (DWORD count = pending; count > 0; count = pending) {
        if (pending.StoreIfStill(count, count - 1)) return;
    }
}
