// See look_threads.h.
#include "provider/overlapped/look_threads.h"

#include <utility>

#include "base/locker.h"
#include "base/thread_annotations.h"
#include "base/trace.h"
#include "provider/contexts/socket_context.h"
#include "provider/guarded_sockets.h"
#include "provider/interception.h"
#include "provider/overlapped/manager_handles.h"
#include "provider/overlapped/overlapped_completion.h"
#include "provider/overlapped/received_data.h"

namespace {

/// Each has a megabyte of the process's addresses for its stack.
constexpr DWORD kMostThreads = 64;
constexpr DWORD kFreeMilliseconds = 10000;
constexpr DWORD kReapMilliseconds = 1000;

enum class ThreadState { kNone, kRuns, kEnded, kGivenUp };

/// All of it is guarded by OverlappedLock.
struct LookThread {
    ThreadState State;
    WorkerThread Worker;
    SocketContext* Serving;  ///< kept by the ends that it has waiting
};

LookThread Threads[kMostThreads] QX_GUARDED_BY(OverlappedLock);
DWORD RunningThreads QX_GUARDED_BY(OverlappedLock) = 0;
/// Those of them that wait for a socket, or are just beginning.
Atomic<DWORD> FreeThreads;
/// Counts the sockets that are ready; null while there is no thread.
HANDLE ReadyCount QX_GUARDED_BY(OverlappedLock) = nullptr;
SocketContext* FirstReady QX_GUARDED_BY(OverlappedLock) = nullptr;
SocketContext* LastReady QX_GUARDED_BY(OverlappedLock) = nullptr;
/// The threads are to end when no socket is ready.
bool Ending QX_GUARDED_BY(OverlappedLock) = false;

bool IsManagerStopped() {
    return ManagerPort == nullptr && ManagerSemaphore == nullptr;
}

/// Tried again: a socket that nobody comes for would wait, and so would a stop.
void WakeThreads(DWORD count) QX_REQUIRES(OverlappedLock) {
    if (ReadyCount == nullptr || count == 0) return;
    const auto threads = static_cast<LONG>(count);
    if (!ReleaseSemaphore(ReadyCount, threads, nullptr)) ReleaseSemaphore(ReadyCount, threads, nullptr);
}

void MakeReady(SocketContext* context) QX_REQUIRES(OverlappedLock) {
    context->WaitingEnds.NextReady = nullptr;
    (LastReady != nullptr ? LastReady->WaitingEnds.NextReady : FirstReady) = context;
    LastReady = context;
    WakeThreads(1);
}

SocketContext* TakeReady() QX_REQUIRES(OverlappedLock) {
    SocketContext* const context = FirstReady;
    if (context == nullptr) return nullptr;
    FirstReady = context->WaitingEnds.NextReady;
    if (FirstReady == nullptr) LastReady = nullptr;
    return context;
}

OverlappedOperation* TakeFirstEnd(SocketContext* context) QX_REQUIRES(OverlappedLock) {
    OverlappedOperation* const operation = context->WaitingEnds.First;
    context->WaitingEnds.First = operation->NextPending;
    if (context->WaitingEnds.First == nullptr) context->WaitingEnds.Last = nullptr;
    return operation;
}

/// Tells the oldest end of a socket; the next one has its turn behind the other sockets that are ready.
void TellFirstEnd(SocketContext* context, LookThread* self) {
    OverlappedOperation* operation;
    bool looks;
    {
        const Locker lock(OverlappedLock);
        operation = TakeFirstEnd(context);
        looks = !IsManagerStopped();
    }
    TellEnd(operation, context, looks ? Look::kWanted : Look::kTooLate);
    bool isLast;
    {
        const Locker lock(OverlappedLock);
        if (self != nullptr) self->Serving = nullptr;
        isLast = context->WaitingEnds.First == nullptr;
        if (isLast) {
            context->EndsWait = FALSE;
        } else {
            MakeReady(context);
        }
    }
    INT ignored = 0;
    if (isLast) DerefSocketContext(context, &ignored);
}

/// Tells what the threads have left.
void TellRemainingEnds() {
    for (;;) {
        SocketContext* context;
        {
            const Locker lock(OverlappedLock);
            context = TakeReady();
        }
        if (context == nullptr) return;
        TellFirstEnd(context, nullptr);
    }
}

/// Whether there would be none free for the next socket.
bool IsThreadWanted() QX_REQUIRES(OverlappedLock) {
    if (IsManagerStopped() || RunningThreads == kMostThreads) return false;
    DWORD ready = 0;
    const DWORD free = FreeThreads;
    for (const SocketContext* context = FirstReady; context != nullptr && ready < free;
         context = context->WaitingEnds.NextReady)
        ++ready;
    return ready == free;
}

DWORD WINAPI ServeSockets(LPVOID argument);

/// Starts a thread in a place that is free; what its last thread has left is for the caller to wait for.
WorkerThread StartInFreePlace(const ThreadStarter& starter) QX_REQUIRES(OverlappedLock) {
    if (ReadyCount == nullptr) ReadyCount = CreateSemaphoreA(nullptr, 0, 0x7FFFFFFF, nullptr);
    if (ReadyCount == nullptr) return {};
    LookThread* place = Threads;
    while (place->State == ThreadState::kRuns || place->State == ThreadState::kGivenUp)
        ++place;
    const WorkerThread ended = std::exchange(place->Worker, {});
    place->State = ThreadState::kNone;
    if (!starter.Start(ServeSockets, place, &place->Worker)) return ended;
    place->State = ThreadState::kRuns;
    ++RunningThreads;
    FreeThreads.Increment();
    return ended;
}

void StartThreadIfWanted() {
    {
        // The starter waits for the loader's lock, which whoever stops the manager may hold.
        const Locker lock(OverlappedLock);
        if (!IsThreadWanted()) return;
    }
    const ThreadStarter starter;
    WorkerThread ended = {};
    {
        const Locker lock(OverlappedLock);
        if (IsThreadWanted()) ended = StartInFreePlace(starter);
    }
    if (ended.Thread != nullptr) StopDeadline(kReapMilliseconds).Await(&ended);
}

/// A thread takes a socket up; or ends, which makes `*ends` true.
SocketContext* TakeUp(LookThread* self, bool timeIsUp, bool* ends) {
    const Locker lock(OverlappedLock);
    if (SocketContext* const context = TakeReady()) {
        self->Serving = context;
        FreeThreads.Decrement();
        return context;
    }
    *ends = Ending || (timeIsUp && FreeThreads > 1);
    if (!*ends) return nullptr;
    self->State = ThreadState::kEnded;
    --RunningThreads;
    FreeThreads.Decrement();
    return nullptr;
}

/// False when the thread was given up meanwhile, by a stop that waited no longer: it is none of the next
/// manager's, and tells only what it has left.
bool BecomeFree(LookThread* self) {
    const Locker lock(OverlappedLock);
    if (self->State == ThreadState::kRuns) {
        FreeThreads.Increment();
        return true;
    }
    self->State = ThreadState::kNone;
    return false;
}

DWORD WINAPI ServeSockets(LPVOID argument) {
    auto* const self = static_cast<LookThread*>(argument);
    HANDLE ready;
    {
        const Locker lock(OverlappedLock);
        ready = ReadyCount;
    }
    bool ends = false;
    bool timeIsUp = false;
    while (!ends) {
        if (SocketContext* const context = TakeUp(self, timeIsUp, &ends)) {
            StartThreadIfWanted();
            TellFirstEnd(context, self);
            if (!BecomeFree(self)) {
                TellRemainingEnds();
                return 0;
            }
            timeIsUp = false;
        } else if (!ends) {
            timeIsUp = WaitForSingleObject(ready, kFreeMilliseconds) == WAIT_TIMEOUT;
        }
    }
    return 0;
}

}  // namespace

void PrepareToLook(const SocketContext* context) {
    if (FreeThreads > 0 || IsSocketExempt(context)) return;
    // A datagram socket gets its channel with what is reported first.
    const bool hasChannel = context->RelayIndex != 0 || context->SpySocket != INVALID_SOCKET;
    if (hasChannel || context->SocketType != SOCK_STREAM) StartThreadIfWanted();
}

bool LeaveToLookThread(OverlappedOperation* operation, SocketContext* context, const Outcome& outcome) {
    const bool wanted = BringsData(*operation, outcome) && IsReceiveLookedAt(context);
    if (!wanted && !context->EndsWait) return false;
    {
        const Locker lock(OverlappedLock);
        if (!wanted && !context->EndsWait) return false;
        if (RunningThreads > 0) {
            operation->EndedWith = outcome;
            operation->NextPending = nullptr;
            auto& ends = context->WaitingEnds;
            (ends.Last != nullptr ? ends.Last->NextPending : ends.First) = operation;
            ends.Last = operation;
            if (context->EndsWait) return true;
            context->EndsWait = TRUE;
            context->RefCount.Increment();
            MakeReady(context);
            return true;
        }
    }
    Trace("ERROR:No thread to look at what was received. #Details: %s #\n", DescribeContext(context).c_str());
    return false;
}

void InterruptLooks() {
    SocketContext* contexts[kMostThreads];
    DWORD count = 0;
    {
        const Locker lock(OverlappedLock);
        for (const LookThread& thread : Threads) {
            if (thread.Serving == nullptr) continue;
            thread.Serving->RefCount.Increment();
            contexts[count++] = thread.Serving;
        }
    }
    for (DWORD i = 0; i < count; ++i) {
        INT ignored = 0;
        contexts[i]->WaitsEnd = TRUE;
        AbandonWaits(contexts[i]);
        DerefSocketContext(contexts[i], &ignored);
    }
}

bool EndLookThreads(const StopDeadline& deadline) {
    {
        const Locker lock(OverlappedLock);
        Ending = true;
        WakeThreads(RunningThreads);
    }
    bool allEnded = true;
    for (LookThread& thread : Threads) {
        WorkerThread worker;
        {
            const Locker lock(OverlappedLock);
            worker = std::exchange(thread.Worker, {});
        }
        if (worker.Thread == nullptr) continue;
        const bool ended = deadline.Await(&worker);
        allEnded = ended && allEnded;
        const Locker lock(OverlappedLock);
        const bool goesOn = !ended && thread.State == ThreadState::kRuns;
        thread.State = goesOn ? ThreadState::kGivenUp : ThreadState::kNone;
    }
    {
        // Nobody leaves ends from here on.
        const Locker lock(OverlappedLock);
        RunningThreads = 0;
        FreeThreads = 0;
    }
    TellRemainingEnds();
    const Locker lock(OverlappedLock);
    Ending = false;
    SafeCloseHandle(std::exchange(ReadyCount, nullptr));
    return allEnded;
}
