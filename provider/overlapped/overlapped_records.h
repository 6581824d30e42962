// The records of the overlapped manager: a pool that gives each out again and again, and the list of those in
// use.
//
// OverlappedLock guards both lists and everything called ...Locked. A record in use holds the catalog's
// lifetime, so that what the lower provider still writes into it stays memory of ours even when a clean-up
// overtook it.
#pragma once

#include <cstddef>

#include "provider/overlapped/overlapped_manager.h"

/// A zero-filled record with one hold, counted in the context's OutstandingAsync. Null when the context is
/// being freed or there is no memory. Takes the context's lock and, inside it, OverlappedLock.
OverlappedOperation* TakeOverlappedRecord(SocketContext* context);

/// Drops a hold; the last one gives the record back to the pool, with the buffer array that it owns.
void ReleaseOverlappedRecord(OverlappedOperation* operation);

/// Empties the free list: what an earlier manager left there lay in a heap that is gone.
void ForgetFreeRecords() QX_REQUIRES(OverlappedLock);

/// Asks the lower providers to end every request in use, by cancelling it.
void CancelOverlappedRecords();

/// Appends a record to the requests that wait for the alertable worker; takes the oldest of them, or null.
void AppendPendingRecord(OverlappedOperation* operation);
OverlappedOperation* TakePendingRecord();

/// The record around the lower provider's overlapped structure.
inline OverlappedOperation* OperationOf(LPWSAOVERLAPPED providerOverlapped) {
    static_assert(offsetof(OverlappedOperation, ProviderOverlapped) == 0,
                  "the lower provider's structure comes first");
    return reinterpret_cast<OverlappedOperation*>(providerOverlapped);
}

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
