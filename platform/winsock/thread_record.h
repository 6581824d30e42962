// What the host keeps per thread: how many of its calls into providers are under way, so that the last
// clean-up unloads no code that still runs, and the thread's id for asynchronous notifications.
//
// A record belongs to its thread; other threads read its counter alone. A thread that left a provider by a
// structured exception keeps a count too many, which ends with the thread and then costs nothing.
#pragma once

#include <winsock2.h>

#include <ws2spi.h>

#include <atomic>

#include "platform/winsock/host_seam.h"

namespace winsock_host {

struct ThreadRecord {
    std::atomic<int> callsUnderWay{0};
    WSATHREADID id{};
    bool idOutlivesThread = false;  // a request with a routine may still name the thread
    ThreadRecord* next = nullptr;   // list of all records
    ThreadRecord* previous = nullptr;
};

extern QX_HOST_TLS ThreadRecord* ThisThreadRecord;

/// Makes and registers the calling thread's record; without memory, one that such threads share.
ThreadRecord& MakeThreadRecord() noexcept;

inline ThreadRecord& CurrentThreadRecord() noexcept {
    ThreadRecord* record = ThisThreadRecord;
    return record != nullptr ? *record : MakeThreadRecord();
}

/// Counts a call for its scope. It is taken before the socket is looked up: a call that still finds its
/// socket is then seen by the clean-up, and one that the clean-up doesn't see finds no socket.
class CallScope {
  public:
    CallScope() noexcept : record_(CurrentThreadRecord()) { record_.callsUnderWay.fetch_add(1); }
    ~CallScope() { record_.callsUnderWay.fetch_sub(1, std::memory_order_release); }
    CallScope(const CallScope&) = delete;
    CallScope& operator=(const CallScope&) = delete;

  private:
    ThreadRecord& record_;
};

/// Waits, at most two seconds of real time, until no other thread is inside a provider; false when one still
/// is.
bool WaitForOtherThreadsCalls() noexcept;

/// The calling thread as providers name it in asynchronous notifications; opened once and kept. With
/// `forRoutine` also beyond the thread's end, until CloseThreadIds, since its value must not become another
/// thread's while a request has it. Null when it cannot be opened, whereupon a provider opens the thread
/// itself.
LPWSATHREADID CurrentThreadId(bool forRoutine) noexcept;

/// Closes the calling thread's id, which the next use opens anew, and those of ended threads. No provider has
/// a request any more.
void CloseThreadIds() noexcept;

}  // namespace winsock_host
