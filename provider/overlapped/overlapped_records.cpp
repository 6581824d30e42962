// A lock-guarded free list, a list of what is in use, and a queue.
#include "provider/overlapped/overlapped_records.h"

#include <cstddef>
#include <cstring>

#include "provider/catalog/catalog.h"
#include "provider/contexts/socket_context.h"
#include "provider/overlapped/overlapped_manager.h"
#include "provider/process_state.h"

namespace {

struct RecordList {
    OverlappedOperation* First = nullptr;
    OverlappedOperation* Last = nullptr;

    void Append(OverlappedOperation* operation) {
        operation->Link.Previous = Last;
        operation->Link.Next = nullptr;
        (Last != nullptr ? Last->Link.Next : First) = operation;
        Last = operation;
    }

    void Remove(OverlappedOperation* operation) {
        OverlappedOperation* const next = operation->Link.Next;
        OverlappedOperation* const previous = operation->Link.Previous;
        (previous != nullptr ? previous->Link.Next : First) = next;
        (next != nullptr ? next->Link.Previous : Last) = previous;
    }
};

// Free records are linked through Link.Next alone.
OverlappedOperation* FreeRecords QX_GUARDED_BY(OverlappedLock) = nullptr;
/// Being prepared, executed or waited for.
RecordList RecordsInUse QX_GUARDED_BY(OverlappedLock);
OverlappedOperation* FirstPending QX_GUARDED_BY(OverlappedLock) = nullptr;
OverlappedOperation* LastPending QX_GUARDED_BY(OverlappedLock) = nullptr;

bool OwnsBuffers(const OverlappedOperation* operation) {
    return operation->OwnsBuffers && operation->Transfer.Buffers != nullptr;
}

/// What a worker with a late packet may read meanwhile is kept (AwaitedEnd) or written as one word.
void ClearRecord(OverlappedOperation* operation) {
    constexpr std::size_t kAfterState = offsetof(OverlappedOperation, ProviderOverlapped.InternalHigh);
    constexpr std::size_t kAwaitedEnd = offsetof(OverlappedOperation, AwaitedEnd);
    PublishWord(&operation->ProviderOverlapped.Internal, ULONG_PTR{0});
    std::memset(reinterpret_cast<char*>(operation) + kAfterState, 0, kAwaitedEnd - kAfterState);
}

/// In use, with one hold; null without memory. The context's lock is held, so that `lifetime` lasts.
OverlappedOperation* TakeRecordLocked(CatalogLifetime* lifetime) {
    const Locker lock(OverlappedLock);
    // A clean-up may have overtaken this thread: the record lies in the heap that it will be given back to.
    OverlappedOperation* operation = lifetime->Heap == PrivateHeap ? FreeRecords : nullptr;
    if (operation != nullptr) {
        FreeRecords = operation->Link.Next;
        operation->Link.Next = nullptr;
    } else {
        operation = static_cast<OverlappedOperation*>(
            HeapAlloc(lifetime->Heap, HEAP_ZERO_MEMORY, sizeof(OverlappedOperation)));
    }
    if (operation == nullptr) return nullptr;
    RecordsInUse.Append(operation);
    operation->Lifetime = lifetime;
    HoldCatalogLifetime(lifetime);
    operation->Holds = 1;
    return operation;
}

}  // namespace

OverlappedOperation* TakeOverlappedRecord(SocketContext* context, LPINT error) {
    OverlappedOperation* operation = nullptr;
    INT failure = WSAENOBUFS;
    if (AcquireSocketLock(context)) {
        if (context->Closing) {
            failure = WSAENOTSOCK;
        } else {
            operation = TakeRecordLocked(context->Provider->Lifetime);
        }
        if (operation != nullptr) ++context->OutstandingAsync;
        ReleaseSocketLock(context);
    }
    if (operation == nullptr) *error = failure;
    return operation;
}

void CountRequest(SocketContext* context) {
    if (!AcquireSocketLock(context)) return;
    ++context->OutstandingAsync;
    ReleaseSocketLock(context);
}

void UncountRequest(SocketContext* context) {
    if (!AcquireSocketLock(context)) return;
    if (context->OutstandingAsync > 0) --context->OutstandingAsync;
    ReleaseSocketLock(context);
}

void ReleaseOverlappedRecord(OverlappedOperation* operation) {
    if (operation->Holds.Decrement() > 0) return;
    CatalogLifetime* const lifetime = operation->Lifetime;
    const HANDLE heap = lifetime->Heap;
    if (OwnsBuffers(operation)) HeapFree(heap, 0, operation->Transfer.Buffers);
    {
        const Locker lock(OverlappedLock);
        RecordsInUse.Remove(operation);
        if (heap == PrivateHeap) {
            ClearRecord(operation);
            operation->Link.Next = FreeRecords;
            FreeRecords = operation;
        }
        // A record of a heap that was given up goes with that heap.
    }
    ReleaseCatalogLifetime(lifetime);
}

void ForgetFreeRecords() {
    FreeRecords = nullptr;
}

void FreeOverlappedRecords() {
    const Locker lock(OverlappedLock);
    while (FreeRecords != nullptr) {
        OverlappedOperation* const operation = FreeRecords;
        FreeRecords = operation->Link.Next;
        HeapFree(PrivateHeap, 0, operation);
    }
}

void CancelOverlappedRecords() {
    const Locker lock(OverlappedLock);
    for (OverlappedOperation* operation = RecordsInUse.First; operation != nullptr;
         operation = operation->Link.Next) {
        CancelIoEx(reinterpret_cast<HANDLE>(operation->ProviderSocket), &operation->ProviderOverlapped);
    }
}

void AppendPendingRecord(OverlappedOperation* operation) {
    const Locker lock(OverlappedLock);
    operation->NextPending = nullptr;
    (LastPending != nullptr ? LastPending->NextPending : FirstPending) = operation;
    LastPending = operation;
}

OverlappedOperation* TakePendingRecord() {
    const Locker lock(OverlappedLock);
    OverlappedOperation* const operation = FirstPending;
    if (operation == nullptr) return nullptr;
    FirstPending = operation->NextPending;
    if (FirstPending == nullptr) LastPending = nullptr;
    return operation;
}
