// See received_data.h.
#include "provider/overlapped/received_data.h"

#include "base/caller_memory.h"
#include "provider/interception.h"

namespace {

/// The peer that a datagram came from becomes the socket's destination. False when there is none, or the
/// socket is a stream, which keeps the one that it is connected to.
bool StoreSource(const TransferArguments& transfer, SocketContext* context, SOCKADDR_STORAGE* source) {
    if (context->SocketType == SOCK_STREAM) return false;
    if (transfer.From == nullptr || transfer.FromLength == nullptr) return false;
    INT length = 0;
    if (!GuardedCall([&]() noexcept { length = *transfer.FromLength; })) return false;
    length = length < 0 ? 0 : length < kLongestName ? length : kLongestName;
    if (!CopyCallerName(transfer.From, length, source)) return false;
    context->StoreDestination(*source, length);
    return true;
}

}  // namespace

void JudgeReceived(OverlappedOperation* operation, SocketContext* context, Look look, Outcome* outcome) {
    const TransferArguments& transfer = operation->Transfer;
    const bool hasSource = operation->Operation == OverlappedType::kRecvFrom;
    SOCKADDR_STORAGE source;
    const bool isKnown = hasSource && StoreSource(transfer, context, &source);
    bool refused = false;
    if (look == Look::kWanted && !hasSource) {
        refused = AnalyzeReceived(context, transfer.Buffers, transfer.BufferCount, &outcome->Bytes);
    } else if (look == Look::kWanted) {
        refused = AnalyzeReceivedFrom(context, transfer.Buffers, transfer.BufferCount, &outcome->Bytes,
                                      isKnown ? reinterpret_cast<const sockaddr*>(&source) : nullptr);
    }
    const bool unanswered = look == Look::kWanted && (context->Closing || context->WaitsEnd);
    if (refused || (context->Blocked && context->BlockError == 0)) {
        *outcome = {0, 0, context->RefusalError()};
    } else if (unanswered || look == Look::kTooLate) {
        // Whoever closes the socket waits for its end and for no data, least of all unjudged data.
        *outcome = {0, 0, WSA_OPERATION_ABORTED};
    }
}
