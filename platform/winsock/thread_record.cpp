// The records of all threads, and the wait for calls to leave the providers.
#include "platform/winsock/thread_record.h"

#include <windows.h>

#include <chrono>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

namespace winsock_host {

QX_HOST_TLS ThreadRecord* ThisThreadRecord = nullptr;

namespace {

// Never destroyed: threads end after static storage does.
struct RecordList {
    std::mutex mutex;  // leaf; guards the list's links and what follows
    ThreadRecord* first = nullptr;
    std::vector<HANDLE> idsOfEnded;
};

RecordList& Records() {
    static RecordList& records = *new RecordList;
    return records;
}

ThreadRecord SharedRecord;

void Link(ThreadRecord& record) {
    std::lock_guard<std::mutex> lock(Records().mutex);
    record.next = Records().first;
    if (record.next != nullptr) record.next->previous = &record;
    Records().first = &record;
}

void Unlink(ThreadRecord& record) {
    std::lock_guard<std::mutex> lock(Records().mutex);
    (record.previous != nullptr ? record.previous->next : Records().first) = record.next;
    if (record.next != nullptr) record.next->previous = record.previous;
}

/// False without memory for it.
bool KeepId(HANDLE id) noexcept {
    try {
        std::lock_guard<std::mutex> lock(Records().mutex);
        Records().idsOfEnded.push_back(id);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void CloseCurrentThreadId() noexcept {
    ThreadRecord* record = ThisThreadRecord;
    if (record == nullptr || record->id.ThreadHandle == nullptr) return;
    CloseOwnHandle(record->id.ThreadHandle);
    record->id.ThreadHandle = nullptr;
    record->idOutlivesThread = false;
}

// Ends the record with its thread. Calls that the thread makes later, while its last destructors run, share a
// record.
void EndRecord(ThreadRecord* record) {
    if (!record->idOutlivesThread || !KeepId(record->id.ThreadHandle)) CloseCurrentThreadId();
    ThisThreadRecord = &SharedRecord;
    Unlink(*record);
    delete record;
}

#ifdef _WIN32

// Not a thread-local object: this target's runtime frees the memory of such objects before their destructors
// run.
void WINAPI OnThreadEnd(void* record) {
    ThisThreadRecord = static_cast<ThreadRecord*>(record);
    EndRecord(ThisThreadRecord);
}

void EndWithThread(ThreadRecord* record) {
    static const DWORD slot = FlsAlloc(OnThreadEnd);
    FlsSetValue(slot, record);
}

#else

struct RecordEnd {
    ThreadRecord* record = nullptr;
    ~RecordEnd() {
        if (record != nullptr) EndRecord(record);
    }
};

thread_local RecordEnd ThisThreadRecordEnd;

void EndWithThread(ThreadRecord* record) {
    ThisThreadRecordEnd.record = record;
}

#endif

}  // namespace

ThreadRecord& MakeThreadRecord() noexcept {
    ThreadRecord* record = new (std::nothrow) ThreadRecord;
    if (record == nullptr) return SharedRecord;
    Link(*record);
    ThisThreadRecord = record;
    EndWithThread(record);
    return *record;
}

bool WaitForOtherThreadsCalls() noexcept {
    const ThreadRecord* own = ThisThreadRecord;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    for (;;) {
        bool idle = own == &SharedRecord || SharedRecord.callsUnderWay.load() == 0;
        {
            std::lock_guard<std::mutex> lock(Records().mutex);
            for (ThreadRecord* record = Records().first; record != nullptr; record = record->next) {
                idle = idle && (record == own || record->callsUnderWay.load() == 0);
            }
        }
        if (idle) return true;
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

LPWSATHREADID CurrentThreadId(bool forRoutine) noexcept {
    ThreadRecord& record = CurrentThreadRecord();
    if (&record == &SharedRecord) return nullptr;
    if (record.id.ThreadHandle == nullptr &&
        !DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(),
                         &record.id.ThreadHandle, 0, FALSE, DUPLICATE_SAME_ACCESS)) {
        record.id.ThreadHandle = nullptr;
        return nullptr;
    }
    if (forRoutine) record.idOutlivesThread = true;
    return &record.id;
}

void CloseThreadIds() noexcept {
    CloseCurrentThreadId();
    std::vector<HANDLE> ids;
    {
        std::lock_guard<std::mutex> lock(Records().mutex);
        ids.swap(Records().idsOfEnded);
    }
    for (const HANDLE id : ids)
        CloseOwnHandle(id);
}

}  // namespace winsock_host
