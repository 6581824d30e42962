// Sends and receives. Overlapped ones go to the overlapped manager; the others are carried out here, counted,
// and shown to the analysis: a send before it leaves, a receive after it came. What is peeked at comes again
// and is neither counted nor shown.
//
// A verdict's block ends with the next receive, which may be answered differently. A block that carries an
// error of its own (the server could not be reached) stays: nothing will change it.
#include "base/caller_memory.h"
#include "base/trace.h"
#include "provider/catalog/lower_call.h"
#include "provider/contexts/socket_context.h"
#include "provider/interception.h"
#include "provider/operation_failure.h"
#include "provider/operations/operations.h"
#include "provider/overlapped/look_threads.h"
#include "provider/overlapped/overlapped_manager.h"

namespace {

/// Whether a request is the overlapped manager's. One on a socket of the layer's own is handed down as it is:
/// nobody is asked about it, and its packet comes straight to the relay's port, through no other thread.
bool IsManaged(const SocketContext* context, const WSAOVERLAPPED* overlapped) {
    return overlapped != nullptr && !context->OwnedByLayer;
}

int FailBlocked(const SocketContext* context, LPINT error) {
    return FailWithLastError(context->RefusalError(), error);
}

/// A receive may be tried again after a verdict's block. False when the socket stays blocked.
bool ClearVerdictBlock(SocketContext* context) {
    // Nothing is written where nothing is to be cleared: the relay may block the socket at this moment.
    if (!context->Blocked) return true;
    if (context->BlockError != 0) return false;
    context->Blocked = FALSE;
    return true;
}

/// Reads the value behind an optional pointer of the application; 0 without one. False when it can't be read.
bool ReadOptional(const DWORD* value, DWORD* copy) {
    *copy = 0;
    return value == nullptr || GuardedCall([&]() noexcept { *copy = *value; });
}

/// What the manager made of a request, as the operation's result. The application's variables, where there
/// are any, are written for one that is done.
int QueueTransfer(OverlappedOperation* operation, SocketContext* context, LPDWORD bytes, LPDWORD flags,
                  LPINT error) {
    const Outcome queued = QueueOverlappedOperation(operation, context);
    if (queued.Error != 0) return Fail(queued.Error, error);
    GuardedCall([&]() noexcept {
        if (bytes != nullptr) *bytes = queued.Bytes;
        if (flags != nullptr) *flags = queued.Flags;
    });
    return 0;
}

/// What a receive has beside its buffers, all of it the application's own.
struct ReceiveArguments {
    LPDWORD BytesReceived;
    LPDWORD Flags;
    sockaddr* From = nullptr;
    LPINT FromLength = nullptr;
};

int QueueReceive(SocketContext* context, OverlappedType type, const CallerBuffers& buffers,
                 const ReceiveArguments& arguments, const CallerNotice& notice, LPINT error) {
    const int s = static_cast<int>(SOCKET{context->LayeredSocket});
    const int record = static_cast<int>(reinterpret_cast<ULONG_PTR>(notice.Overlapped));
    DWORD givenBytes = 0;
    DWORD givenFlags = 0;
    if (!ReadOptional(arguments.BytesReceived, &givenBytes) || !ReadOptional(arguments.Flags, &givenFlags)) {
        Trace("ERROR:WSPRecv: Overlapped exception! %d, ovl:%d..", s, record);
        return Fail(WSAEFAULT, error);
    }
    OverlappedOperation* const operation = PrepareOverlappedOperation(context, type, notice, buffers, error);
    if (operation == nullptr) {
        Trace("ERROR:WSPRecv: Overlapped is null! %d, ovl:%d. error = %d.", s, record, *error);
        return SOCKET_ERROR;
    }
    operation->Transfer.Bytes = givenBytes;
    operation->Transfer.Flags = givenFlags;
    operation->Transfer.From = arguments.From;
    operation->Transfer.FromLength = arguments.FromLength;
    operation->Transfer.Peeks = (givenFlags & MSG_PEEK) != 0;
    PrepareToLook(context);
    return QueueTransfer(operation, context, arguments.BytesReceived, arguments.Flags, error);
}

/// Whether a receive leaves what it reads to the next one.
bool IsPeek(const DWORD* flags) {
    DWORD given = 0;
    return ReadOptional(flags, &given) && (given & MSG_PEEK) != 0;
}

/// Counts what a call has moved: nothing when it failed, whatever the application's variable holds. That may
/// be gone by now.
DWORD CountMoved(Atomic<std::uint64_t>* counter, int result, const DWORD* transferred) {
    DWORD bytes = 0;
    if (result == SOCKET_ERROR || !ReadOptional(transferred, &bytes)) return 0;
    counter->FetchAdd(bytes);
    return bytes;
}

/// The peer that a datagram came from becomes the socket's destination. `*source` is a copy of its address;
/// false when there is none, or the socket is a stream, which keeps the one that it is connected to.
bool StoreSource(SocketContext* context, const sockaddr* from, const INT* fromLength,
                 SOCKADDR_STORAGE* source) {
    if (context->SocketType == SOCK_STREAM) return false;
    if (from == nullptr || fromLength == nullptr) return false;
    INT length = 0;
    if (!GuardedCall([&]() noexcept { length = *fromLength; })) return false;
    length = length < 0 ? 0 : length < kLongestName ? length : kLongestName;
    if (!CopyCallerName(from, length, source)) return false;
    context->StoreDestination(*source, length);
    return true;
}

/// What the application gets of a receive that has been looked at: nothing when it was refused.
int EndReceive(const SocketContext* context, bool refused, int result, LPDWORD bytesReceived, LPINT error) {
    // The mark may be another thread's, which may as well have taken this one's away.
    if (!refused && !context->Blocked) return result;
    GuardedCall([&]() noexcept {
        if (bytesReceived != nullptr) *bytesReceived = 0;
    });
    return FailBlocked(context, error);
}

}  // namespace

int WSPAPI WSPRecv(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytesReceived, LPDWORD flags,
                   LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE completionRoutine,
                   LPWSATHREADID threadId, LPINT error) {
    *error = 0;
    const ContextReference context(s, error);
    if (!context) return SOCKET_ERROR;
    const bool mayReceive = ClearVerdictBlock(context.Get());
    if (IsManaged(context.Get(), overlapped)) {
        return QueueReceive(context.Get(), OverlappedType::kRecv, {buffers, count}, {bytesReceived, flags},
                            {overlapped, completionRoutine, threadId}, error);
    }
    if (!mayReceive) return FailBlocked(context.Get(), error);

    const bool peeks = IsPeek(flags);
    LspEntry* const provider = context->Provider;
    const int result = CallLower(provider, SOCKET_ERROR, error, [&]() noexcept {
        return provider->LowerProcedures.lpWSPRecv(context->ProviderSocket, buffers, count, bytesReceived,
                                                   flags, overlapped, completionRoutine, threadId, error);
    });
    const DWORD received = peeks ? 0 : CountMoved(&context->BytesRecv, result, bytesReceived);
    const bool refused = AnalyzeReceived(context.Get(), buffers, count, &received);
    return EndReceive(context.Get(), refused, result, bytesReceived, error);
}

int WSPAPI WSPRecvFrom(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytesReceived, LPDWORD flags,
                       sockaddr* from, LPINT fromLength, LPWSAOVERLAPPED overlapped,
                       LPWSAOVERLAPPED_COMPLETION_ROUTINE completionRoutine, LPWSATHREADID threadId,
                       LPINT error) {
    *error = 0;
    const ContextReference context(s, error);
    if (!context) return SOCKET_ERROR;
    const bool mayReceive = ClearVerdictBlock(context.Get());
    if (IsManaged(context.Get(), overlapped)) {
        return QueueReceive(context.Get(), OverlappedType::kRecvFrom, {buffers, count},
                            {bytesReceived, flags, from, fromLength},
                            {overlapped, completionRoutine, threadId}, error);
    }
    if (!mayReceive) return FailBlocked(context.Get(), error);

    const bool peeks = IsPeek(flags);
    LspEntry* const provider = context->Provider;
    const int result = CallLower(provider, SOCKET_ERROR, error, [&]() noexcept {
        return provider->LowerProcedures.lpWSPRecvFrom(context->ProviderSocket, buffers, count, bytesReceived,
                                                       flags, from, fromLength, overlapped, completionRoutine,
                                                       threadId, error);
    });
    const DWORD received = peeks ? 0 : CountMoved(&context->BytesRecv, result, bytesReceived);
    SOCKADDR_STORAGE source;
    const bool hasSource = result != SOCKET_ERROR && StoreSource(context.Get(), from, fromLength, &source);
    const bool refused =
        AnalyzeReceivedFrom(context.Get(), buffers, count, &received,
                            hasSource ? reinterpret_cast<const sockaddr*>(&source) : nullptr);
    return EndReceive(context.Get(), refused, result, bytesReceived, error);
}

int WSPAPI WSPSend(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytesSent, DWORD flags,
                   LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE completionRoutine,
                   LPWSATHREADID threadId, LPINT error) {
    *error = 0;
    const ContextReference context(s, error);
    if (!context) return SOCKET_ERROR;
    if (IsManaged(context.Get(), overlapped)) {
        OverlappedOperation* const operation =
            PrepareOverlappedOperation(context.Get(), OverlappedType::kSend,
                                       {overlapped, completionRoutine, threadId}, {buffers, count}, error);
        if (operation == nullptr) return SOCKET_ERROR;
        operation->Transfer.Flags = flags;
        return QueueTransfer(operation, context.Get(), bytesSent, nullptr, error);
    }
    AnalyzeSent(context.Get(), buffers, count);
    if (context->Blocked) return FailBlocked(context.Get(), error);

    LspEntry* const provider = context->Provider;
    const int result = CallLower(provider, SOCKET_ERROR, error, [&]() noexcept {
        return provider->LowerProcedures.lpWSPSend(context->ProviderSocket, buffers, count, bytesSent, flags,
                                                   overlapped, completionRoutine, threadId, error);
    });
    CountMoved(&context->BytesSent, result, bytesSent);
    return result;
}

int WSPAPI WSPSendTo(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytesSent, DWORD flags,
                     const sockaddr* to, int toLength, LPWSAOVERLAPPED overlapped,
                     LPWSAOVERLAPPED_COMPLETION_ROUTINE completionRoutine, LPWSATHREADID threadId,
                     LPINT error) {
    *error = 0;
    const ContextReference context(s, error);
    if (!context) return SOCKET_ERROR;
    // What is reported is what is sent: both use this copy.
    SOCKADDR_STORAGE destination;
    if (to != nullptr && !CopyCallerName(to, toLength, &destination)) return Fail(WSAEFAULT, error);
    const auto* const target = to != nullptr ? reinterpret_cast<const sockaddr*>(&destination) : nullptr;
    if (IsManaged(context.Get(), overlapped)) {
        OverlappedOperation* const operation =
            PrepareOverlappedOperation(context.Get(), OverlappedType::kSendTo,
                                       {overlapped, completionRoutine, threadId}, {buffers, count}, error);
        if (operation == nullptr) return SOCKET_ERROR;
        operation->Transfer.Flags = flags;
        operation->Transfer.ToLength = target != nullptr ? toLength : 0;
        if (target != nullptr) operation->Transfer.To = destination;
        return QueueTransfer(operation, context.Get(), bytesSent, nullptr, error);
    }
    // A stream goes where it is connected to.
    if (target != nullptr && context->SocketType != SOCK_STREAM) {
        context->StoreDestination(destination, toLength);
    }
    AnalyzeSentTo(context.Get(), buffers, count, target);
    if (context->Blocked) return FailBlocked(context.Get(), error);

    LspEntry* const provider = context->Provider;
    const int result = CallLower(provider, SOCKET_ERROR, error, [&]() noexcept {
        return provider->LowerProcedures.lpWSPSendTo(context->ProviderSocket, buffers, count, bytesSent,
                                                     flags, target, toLength, nullptr, nullptr, threadId,
                                                     error);
    });
    CountMoved(&context->BytesSent, result, bytesSent);
    return result;
}
