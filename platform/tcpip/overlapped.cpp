// Completion as Windows gives it: `Internal` holds the status and is written last, so that whoever polls it
// finds the rest in place; then the completion routine's APC, or the event and the port's packet. After
// `Internal` is written the caller's record is not touched again, since its owner may reuse it.
#include "platform/tcpip/overlapped.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>

#include "platform/tcpip/error_table.h"
#include "platform/tcpip/provider.h"
#include "platform/tcpip/transfer.h"

namespace tcpip {
namespace {

// Those who wait for a request that has no event. The lock is a leaf.
std::mutex CompletionLock;
std::condition_variable AnyCompletion;
std::atomic<int> CompletionWaiters{0};

DWORD LoadStatus(const WSAOVERLAPPED* overlapped) {
    return static_cast<DWORD>(__atomic_load_n(&overlapped->Internal, __ATOMIC_SEQ_CST));
}

void StoreStatus(WSAOVERLAPPED* overlapped, DWORD status) {
    __atomic_store_n(&overlapped->Internal, static_cast<ULONG_PTR>(status), __ATOMIC_SEQ_CST);
}

HANDLE EventOf(const WSAOVERLAPPED* overlapped) {
    return reinterpret_cast<HANDLE>(reinterpret_cast<ULONG_PTR>(overlapped->hEvent) &
                                    ~static_cast<ULONG_PTR>(1));
}

bool WantsPacket(const WSAOVERLAPPED* overlapped) {
    return (reinterpret_cast<ULONG_PTR>(overlapped->hEvent) & 1) == 0;
}

DWORD FlagsOfStatus(DWORD status) {
    return status == kStatusBufferOverflow ? MSG_PARTIAL : 0;
}

/// The APC of a completion routine, on the thread that started the request.
void CALLBACK RunRoutine(DWORD_PTR context) {
    RequestPointer request(reinterpret_cast<Request*>(context));
    const auto routine = request->routine;
    WSAOVERLAPPED* overlapped = request->overlapped;
    const DWORD error = request->routineError;
    const DWORD bytes = request->transferred;
    const DWORD flags = request->routineFlags;
    request.reset();
    routine(error, bytes, overlapped, flags);
}

void QueueRoutine(RequestPointer request, int error, DWORD status) {
    request->routineError = static_cast<DWORD>(error);
    request->routineFlags = FlagsOfStatus(status);
    request->owner.reset();
    WSATHREADID thread = request->thread;
    const bool closeThread = request->closeThread;
    int ignored = 0;
    if (Upcalls().lpWPUQueueApc(&thread, RunRoutine, reinterpret_cast<DWORD_PTR>(request.get()), &ignored) ==
        0) {
        static_cast<void>(request.release());  // the routine's procedure owns it now
    }
    if (closeThread) Upcalls().lpWPUCloseThread(&thread, &ignored);
}

/// Writes the result; the record is the caller's again afterwards.
void StoreResult(WSAOVERLAPPED* overlapped, DWORD bytes, DWORD status) {
    overlapped->InternalHigh = bytes;
    StoreStatus(overlapped, status);
    if (CompletionWaiters.load() == 0) return;
    std::lock_guard<std::mutex> guard(CompletionLock);
    AnyCompletion.notify_all();
}

/// Where a request ended: inside the call that started it, or later.
enum class Ended { InCall, Later };

void FinishOverlapped(Socket& owner, WSAOVERLAPPED* overlapped, DWORD bytes, DWORD status, Ended ended) {
    const HANDLE event = EventOf(overlapped);
    const bool packet =
        WantsPacket(overlapped) && !(ended == Ended::InCall && status == 0 && owner.SkipsPortOnSuccess());
    StoreResult(overlapped, bytes, status);
    if (event != nullptr) SetEvent(event);
    if (packet) owner.PostCompletion(overlapped, bytes, SystemErrorFromStatus(status));
}

void BeginOverlapped(const Request& request) {
    request.overlapped->InternalHigh = 0;
    StoreStatus(request.overlapped, kStatusPending);
    if (request.routine == nullptr && EventOf(request.overlapped) != nullptr)
        ResetEvent(EventOf(request.overlapped));
}

void Finish(Request* raw, int error, Ended ended) {
    RequestPointer request(raw);
    const DWORD status =
        error == 0 && request->truncated ? kStatusBufferOverflow : StatusFromWinsockError(error);
    if (error != 0) request->transferred = 0;
    if (error != 0 && request->accepting != nullptr) ReleaseAccepting(*request->accepting);
    if (request->routine == nullptr) {
        FinishOverlapped(*request->owner, request->overlapped, request->transferred, status, ended);
        return;
    }
    StoreResult(request->overlapped, request->transferred, status);
    QueueRoutine(std::move(request), WinsockErrorFromStatus(status), status);
}

/// Goes on with an accepted connection's request on the accepting socket: it waits for the first data there.
/// The listener's lock is held.
void ContinueOnAccepting(Request* request) {
    const std::shared_ptr<Socket> accepting = std::move(request->accepting);
    request->kind = RequestKind::Receive;
    request->buffers.push_back({request->output, request->receiveLength});
    std::lock_guard<std::mutex> guard(accepting->lock);
    accepting->acceptListener.reset();
    const int error =
        accepting->IsClosed() ? static_cast<int>(WSA_OPERATION_ABORTED) : accepting->RegisterLocked();
    if (error != 0) {
        CompleteRequest(request, error);
        return;
    }
    accepting->queues[kRead].Push(request);
    accepting->DriveLocked(kRead);
}

}  // namespace

RequestPointer MakeRequest(const std::shared_ptr<Socket>& owner, const OverlappedCall& call,
                           RequestKind kind) {
    RequestPointer request(AcquireRequest());
    if (request == nullptr) return nullptr;
    request->kind = kind;
    request->owner = owner;
    request->overlapped = call.overlapped;
    request->routine = call.routine;
    if (call.routine == nullptr) return request;
    int error = 0;
    if (call.thread != nullptr) {
        request->thread = *call.thread;
    } else if (Upcalls().lpWPUOpenCurrentThread(&request->thread, &error) == 0) {
        request->closeThread = true;
    } else {
        request.reset();
    }
    return request;
}

void ReleaseAccepting(Socket& accepting) {
    const std::lock_guard<std::mutex> guard(accepting.lock);
    accepting.acceptListener.reset();
}

void CompleteRequest(Request* request, int error) {
    Finish(request, error, Ended::Later);
}

int CompleteAtOnce(const std::shared_ptr<Socket>& owner, const OverlappedCall& call, DWORD bytes) {
    RequestPointer request = MakeRequest(owner, call, RequestKind::Send);
    if (request == nullptr) return WSAENOBUFS;
    BeginOverlapped(*request);
    request->transferred = bytes;
    Finish(request.release(), 0, Ended::InCall);
    return 0;
}

int StartRequest(Socket& socket, Direction direction, RequestPointer request, DWORD* bytes, DWORD* flags) {
    std::lock_guard<std::mutex> guard(socket.lock);
    if (socket.IsClosed()) return WSAENOTSOCK;
    BeginOverlapped(*request);
    RequestQueue& queue = socket.queues[direction];
    const bool connects = request->kind == RequestKind::Connect;  // its kind changes when it goes on to send
    int error = 0;
    const Progress progress =
        queue.empty() ? AttemptRequest(socket, request.get(), &error) : Progress::Pending;
    if (progress == Progress::Pending) {
        error = socket.RegisterLocked();
        if (error != 0) {
            StoreStatus(request->overlapped, StatusFromWinsockError(error));
            return error;
        }
        // Registering reported whatever became ready since the attempt; the reactor finds the request queued.
        queue.Push(request.release());
        return WSA_IO_PENDING;
    }
    if (progress == Progress::Moved) {
        ContinueOnAccepting(request.release());
        return WSA_IO_PENDING;
    }
    // On Windows a connect is never over when its call returns, be it refused or made.
    if (connects) {
        CompleteRequest(request.release(), error);
        return WSA_IO_PENDING;
    }
    if (error != 0) {
        StoreStatus(request->overlapped, StatusFromWinsockError(error));
        return error;
    }
    // Data that did not fit is a warning with a completion of its own, so it is reported there.
    const bool truncated = request->truncated;
    if (!truncated) {
        if (bytes != nullptr) *bytes = request->transferred;
        if (flags != nullptr) *flags = 0;
    }
    Finish(request.release(), 0, Ended::InCall);
    return truncated ? WSA_IO_PENDING : 0;
}

void Socket::DriveLocked(Direction direction) {
    RequestQueue& queue = queues[direction];
    while (!queue.empty() && !IsClosed()) {
        int error = 0;
        const Progress progress = AttemptRequest(*this, queue.head(), &error);
        if (progress == Progress::Pending) return;
        Request* request = queue.Pop();
        if (progress == Progress::Moved) {
            ContinueOnAccepting(request);
        } else {
            CompleteRequest(request, error);
        }
    }
    if (direction == kWrite && shutWhenSent && !IsClosed()) ShutSendLocked();
}

int OverlappedResult(WSAOVERLAPPED* overlapped, bool wait, DWORD* bytes, DWORD* flags) {
    if (LoadStatus(overlapped) == kStatusPending) {
        if (!wait) return WSA_IO_INCOMPLETE;
        const HANDLE event = EventOf(overlapped);
        if (event != nullptr) {
            if (WaitForSingleObject(event, INFINITE) == WAIT_FAILED) return static_cast<int>(GetLastError());
        } else {
            std::unique_lock<std::mutex> guard(CompletionLock);
            CompletionWaiters.fetch_add(1);
            AnyCompletion.wait(guard, [overlapped] { return LoadStatus(overlapped) != kStatusPending; });
            CompletionWaiters.fetch_sub(1);
        }
    }
    const DWORD status = LoadStatus(overlapped);
    if (status == kStatusPending) return WSA_IO_INCOMPLETE;
    *bytes = static_cast<DWORD>(overlapped->InternalHigh);
    *flags = FlagsOfStatus(status);
    return WinsockErrorFromStatus(status);
}

}  // namespace tcpip
