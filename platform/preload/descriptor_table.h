// Which of the process's descriptors are sockets that go through Winsock, and which belong to the layer
// itself.
//
// A Winsock socket is shared by all descriptors of one open socket (dup) and by the calls under way on it;
// the last of them closes it, as the kernel does with what lies behind a descriptor. Look-ups take no lock:
// records are never given back to the heap, so one that is being let go can still be looked at.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/preload/bridge.h"

namespace preload {

struct SocketRecord {
    // Set before the record is in the table.
    WinsockSocket socket = 0;
    int lowerDescriptor = -1;
    bool v6 = false;
    bool stream = false;

    // As the program sees it.
    std::atomic<bool> nonBlocking{false};
    std::atomic<bool> connecting{false};    ///< a connect was begun whose end no second connect has told yet
    std::atomic<bool> keepsControl{false};  ///< datagrams: the program asked for data beside them
    std::atomic<std::int64_t> receiveTimeout{0};  ///< nanoseconds, 0: none
    std::atomic<std::int64_t> sendTimeout{0};

    // The table's.
    std::atomic<unsigned> references{0};
    SocketRecord* nextFree = nullptr;
};

/// A new record, held by nobody but the caller; null without memory.
SocketRecord* NewRecord();

/// Gives a reference back. The last one closes the Winsock socket; inside, where only a handler of the
/// program's can come by, the next record that is made does it.
void Release(SocketRecord* record);

/// Makes `descriptor` one of the record's; the caller's reference becomes the descriptor's.
void Enter(int descriptor, SocketRecord* record);

/// Whatever `descriptor` was, it is the kernel's alone from now on. The record that it was of, whose
/// reference is the caller's now, or null.
SocketRecord* Leave(int descriptor);

/// The layer's own descriptors: a program that closes whatever it finds must not close these.
void MarkInternal(int descriptor);
void UnmarkInternal(int descriptor);
bool IsInternal(int descriptor);

/// Whether the descriptor is a record's or the layer's own.
bool IsKnown(int descriptor);

/// The highest descriptor that was ever marked or entered.
int HighestKnown();

/// The record of a descriptor, kept for one call.
class Use {
  public:
    explicit Use(int descriptor);
    ~Use() {
        if (record_ != nullptr) Release(record_);
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

    explicit operator bool() const { return record_ != nullptr; }
    SocketRecord* operator->() const { return record_; }
    SocketRecord& operator*() const { return *record_; }

    /// The reference is the caller's from now on.
    SocketRecord* Keep() {
        SocketRecord* const record = record_;
        record_ = nullptr;
        return record;
    }

  private:
    SocketRecord* record_ = nullptr;
};

/// Closes the layer's own descriptors and makes every record's socket a plain one of the kernel's: in a child
/// of fork, where the layer's threads are gone. Async-signal-safe.
void ForgetAfterFork();

}  // namespace preload
