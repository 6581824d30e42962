// A lower call that receives may have been made when a block is found: the request is then cancelled below,
// and ends with the block's error when the lower provider has let go of the application's buffers.
#include "provider/overlapped/overlapped_execution.h"

#include <cstring>
#include <iterator>

#include "provider/catalog/lower_call.h"
#include "provider/contexts/connect_route.h"
#include "provider/contexts/lower_socket_use.h"
#include "provider/interception.h"
#include "provider/operation_failure.h"
#include "provider/overlapped/overlapped_completion.h"

namespace {

int BlockErrorOf(const SocketContext* context) {
    const int blockError = context->BlockError;
    return blockError != 0 ? blockError : WSAECONNABORTED;
}

/// 0 for success, else the error of a call in the style of the provider interface.
int ResultOf(int result, INT error) {
    return result != SOCKET_ERROR ? 0 : LowerError(error);
}

/// Runs `call(lower procedures, &error)`.
template <class Call>
int CallProcedure(OverlappedOperation* operation, Call call) {
    const LowerSocketUse use(operation->SocketContext);
    if (!use) return WSAENOTSOCK;
    INT error = 0;
    LspEntry* const provider = operation->Provider;
    const int result = CallLower(provider, SOCKET_ERROR, &error,
                                 [&]() noexcept { return call(provider->LowerProcedures, &error); });
    return ResultOf(result, error);
}

/// Runs `call(lower extension functions)`, which tells success.
template <class Call>
int CallExtension(OverlappedOperation* operation, Call call) {
    const LowerSocketUse use(operation->SocketContext);
    if (!use) return WSAENOTSOCK;
    INT error = 0;
    LspEntry* const provider = operation->Provider;
    const int result = CallLower(provider, SOCKET_ERROR, &error, [&]() noexcept {
        // What an earlier call has left is not this one's error.
        WSASetLastError(0);
        if (call(provider->Extensions)) return 0;
        error = WSAGetLastError();
        return SOCKET_ERROR;
    });
    return ResultOf(result, error);
}

/// A receive that the analysis blocked after the lower call had been made. Its completion reports the block's
/// error; that one under way is cancelled only makes this soon.
int RefuseReceive(OverlappedOperation* operation, const SocketContext* context, int lowerResult) {
    const int blockError = BlockErrorOf(context);
    if (lowerResult != 0 && lowerResult != WSA_IO_PENDING) return blockError;
    operation->RefusedWith.Publish(blockError);
    if (lowerResult == WSA_IO_PENDING) {
        CancelIoEx(reinterpret_cast<HANDLE>(operation->ProviderSocket), &operation->ProviderOverlapped);
    }
    return lowerResult;
}

/// The result of a receive after the look at its data. One that has ended meanwhile is ended now.
int EndAnalysis(OverlappedOperation* operation, int result) {
    if (operation->Analysis.StoreIfStill(AnalysisState::kUnderWay, AnalysisState::kNone)) return result;
    const Outcome& outcome = operation->EndedWith;
    CompleteOverlappedOperation(static_cast<DWORD>(outcome.Error), outcome.Bytes,
                                &operation->ProviderOverlapped, outcome.Flags);
    return WSA_IO_PENDING;
}

int Receive(OverlappedOperation* operation, SocketContext* context, const CompletionNotice& notice) {
    if (context->Blocked) return BlockErrorOf(context);
    const RecordHold hold(operation);
    operation->Analysis.Publish(AnalysisState::kUnderWay);
    TransferArguments& transfer = operation->Transfer;
    const int result = CallProcedure(operation, [&](const WSPPROC_TABLE& lower, LPINT error) {
        return lower.lpWSPRecv(operation->ProviderSocket, transfer.Buffers, transfer.BufferCount,
                               &transfer.Bytes, &transfer.Flags, &operation->ProviderOverlapped,
                               notice.Routine, notice.Thread, error);
    });
    const DWORD arrived = result == 0 ? transfer.Bytes : 0;
    AnalyzeReceived(context, transfer.Buffers, transfer.BufferCount, &arrived);
    return EndAnalysis(operation, context->Blocked ? RefuseReceive(operation, context, result) : result);
}

/// The sender's address, when it is there already.
bool StoreSource(const TransferArguments& transfer, SocketContext* context, SOCKADDR_STORAGE* source) {
    if (context->SocketType == SOCK_STREAM) return false;
    if (transfer.From == nullptr || transfer.FromLength == nullptr) return false;
    INT length = 0;
    if (!GuardedCall([&]() noexcept {
            length = *transfer.FromLength < 0 ? 0 : *transfer.FromLength;
            if (length > static_cast<INT>(sizeof(*source))) length = sizeof(*source);
            std::memset(source, 0, sizeof(*source));
            std::memcpy(source, transfer.From, static_cast<std::size_t>(length));
        })) {
        return false;
    }
    context->StoreDestination(*source, length);
    return true;
}

int ReceiveFrom(OverlappedOperation* operation, SocketContext* context, const CompletionNotice& notice) {
    if (context->Blocked) return BlockErrorOf(context);
    const RecordHold hold(operation);
    operation->Analysis.Publish(AnalysisState::kUnderWay);
    TransferArguments& transfer = operation->Transfer;
    const int result = CallProcedure(operation, [&](const WSPPROC_TABLE& lower, LPINT error) {
        return lower.lpWSPRecvFrom(operation->ProviderSocket, transfer.Buffers, transfer.BufferCount,
                                   &transfer.Bytes, &transfer.Flags, transfer.From, transfer.FromLength,
                                   &operation->ProviderOverlapped, notice.Routine, notice.Thread, error);
    });
    // While the request is under way the application's address buffer holds nothing yet.
    SOCKADDR_STORAGE source;
    const bool hasSource = result == 0 && StoreSource(transfer, context, &source);
    const DWORD arrived = result == 0 ? transfer.Bytes : 0;
    AnalyzeReceivedFrom(context, transfer.Buffers, transfer.BufferCount, &arrived,
                        hasSource ? reinterpret_cast<const sockaddr*>(&source) : nullptr);
    return EndAnalysis(operation, context->Blocked ? RefuseReceive(operation, context, result) : result);
}

int Send(OverlappedOperation* operation, SocketContext* context, const CompletionNotice& notice) {
    TransferArguments& transfer = operation->Transfer;
    AnalyzeSent(context, transfer.Buffers, transfer.BufferCount);
    if (context->Blocked) return BlockErrorOf(context);
    return CallProcedure(operation, [&](const WSPPROC_TABLE& lower, LPINT error) {
        return lower.lpWSPSend(operation->ProviderSocket, transfer.Buffers, transfer.BufferCount,
                               &transfer.Bytes, transfer.Flags, &operation->ProviderOverlapped,
                               notice.Routine, notice.Thread, error);
    });
}

int SendTo(OverlappedOperation* operation, SocketContext* context, const CompletionNotice& notice) {
    TransferArguments& transfer = operation->Transfer;
    const auto* const to = transfer.ToLength > 0 ? reinterpret_cast<const sockaddr*>(&transfer.To) : nullptr;
    if (to != nullptr && context->SocketType != SOCK_STREAM) {
        context->StoreDestination(transfer.To, transfer.ToLength);
    }
    AnalyzeSentTo(context, transfer.Buffers, transfer.BufferCount, to);
    if (context->Blocked) return WSAECONNREFUSED;
    return CallProcedure(operation, [&](const WSPPROC_TABLE& lower, LPINT error) {
        return lower.lpWSPSendTo(operation->ProviderSocket, transfer.Buffers, transfer.BufferCount,
                                 &transfer.Bytes, transfer.Flags, to, transfer.ToLength,
                                 &operation->ProviderOverlapped, notice.Routine, notice.Thread, error);
    });
}

int Ioctl(OverlappedOperation* operation, SocketContext*, const CompletionNotice& notice) {
    IoctlArguments& ioctl = operation->Ioctl;
    return CallProcedure(operation, [&](const WSPPROC_TABLE& lower, LPINT error) {
        return lower.lpWSPIoctl(operation->ProviderSocket, ioctl.Code, ioctl.Input, ioctl.InputLength,
                                ioctl.Output, ioctl.OutputLength, &ioctl.BytesReturned,
                                &operation->ProviderOverlapped, notice.Routine, notice.Thread, error);
    });
}

int Connect(OverlappedOperation* operation, SocketContext* context, const CompletionNotice&) {
    ConnectExArguments& connect = operation->ConnectEx;
    ConnectTarget target;
    target.name = connect.Name;
    target.length = connect.NameLength;
    constexpr ConnectErrors kErrors = {WSAECONNREFUSED, WSAECONNREFUSED};
    if (const int refusal = RouteConnect(context, kErrors, &target); refusal != 0) {
        // The close ends it as it ends every request.
        return target.way == ConnectTarget::Way::kSocketClosed ? WSA_OPERATION_ABORTED : refusal;
    }
    connect.Name = target.name;
    connect.NameLength = target.length;
    connect.MadeSplit = target.way == ConnectTarget::Way::kThroughRelay;
    const bool madeSplit = connect.MadeSplit != FALSE;
    // Once it is under way, the record may be gone.
    const int result = CallExtension(operation, [&](const LowerExtensions& lower) {
        return lower.ConnectEx(operation->ProviderSocket, reinterpret_cast<const sockaddr*>(&connect.Name),
                               connect.NameLength, connect.SendBuffer, connect.SendLength, &connect.BytesSent,
                               &operation->ProviderOverlapped) != FALSE;
    });
    if (madeSplit && result != 0 && result != WSA_IO_PENDING) AbandonSplit(context);
    return result;
}

int Accept(OverlappedOperation* operation, SocketContext*, const CompletionNotice&) {
    AcceptExArguments& accept = operation->AcceptEx;
    // May have been closed while the request waited for a worker.
    INT error = 0;
    const ContextReference accepting(accept.AcceptingSocket, &error);
    if (!accepting) return WSAENOTSOCK;
    const LowerSocketUse use(accepting.Get());
    if (!use) return WSAENOTSOCK;
    return CallExtension(operation, [&](const LowerExtensions& lower) {
        return lower.AcceptEx(operation->ProviderSocket, accept.AcceptingProviderSocket, accept.Output,
                              accept.ReceiveLength, accept.LocalAddressLength, accept.RemoteAddressLength,
                              &accept.BytesReceived, &operation->ProviderOverlapped) != FALSE;
    });
}

int TransmitFileBelow(OverlappedOperation* operation, SocketContext*, const CompletionNotice&) {
    const TransmitFileArguments& file = operation->TransmitFile;
    return CallExtension(operation, [&](const LowerExtensions& lower) {
        return lower.TransmitFile(operation->ProviderSocket, file.File, file.BytesToWrite, file.BytesPerSend,
                                  &operation->ProviderOverlapped, file.Buffers, file.Flags) != FALSE;
    });
}

int Disconnect(OverlappedOperation* operation, SocketContext*, const CompletionNotice&) {
    return CallExtension(operation, [&](const LowerExtensions& lower) {
        return lower.DisconnectEx(operation->ProviderSocket, &operation->ProviderOverlapped,
                                  operation->DisconnectEx.Flags, operation->DisconnectEx.Reserved) != FALSE;
    });
}

int TransmitPacketsBelow(OverlappedOperation* operation, SocketContext*, const CompletionNotice&) {
    const TransmitPacketsArguments& packets = operation->TransmitPackets;
    return CallExtension(operation, [&](const LowerExtensions& lower) {
        return lower.TransmitPackets(operation->ProviderSocket, packets.Packets, packets.ElementCount,
                                     packets.SendSize, &operation->ProviderOverlapped,
                                     packets.Flags) != FALSE;
    });
}

int ReceiveMessageBelow(OverlappedOperation* operation, SocketContext*, const CompletionNotice& notice) {
    WsaRecvMsgArguments& receive = operation->WSARecvMsg;
    return CallExtension(operation, [&](const LowerExtensions& lower) {
        return lower.WSARecvMsg(operation->ProviderSocket, receive.Message, &receive.BytesReceived,
                                &operation->ProviderOverlapped, notice.Routine) == 0;
    });
}

constexpr auto kSent = &SocketContext::BytesSent;
constexpr auto kReceived = &SocketContext::BytesRecv;

/// In the order of the numbers.
constexpr OverlappedTypeRow kTypes[] = {
    {OverlappedType::kIoctl, true, Ioctl, nullptr},
    {OverlappedType::kRecv, true, Receive, kReceived},
    {OverlappedType::kRecvFrom, true, ReceiveFrom, kReceived},
    {OverlappedType::kSend, true, Send, kSent},
    {OverlappedType::kSendTo, true, SendTo, kSent},
    {OverlappedType::kTransmitFile, false, TransmitFileBelow, kSent},
    {OverlappedType::kAcceptEx, false, Accept, kReceived},
    {OverlappedType::kConnectEx, false, Connect, kSent},
    {OverlappedType::kDisconnectEx, false, Disconnect, nullptr},
    {OverlappedType::kTransmitPackets, false, TransmitPacketsBelow, kSent},
    {OverlappedType::kWsaRecvMsg, true, ReceiveMessageBelow, kReceived},
};

constexpr std::size_t PlaceOf(OverlappedType type) {
    return static_cast<std::size_t>(type) - 1;
}

constexpr bool StandInOrder() {
    for (std::size_t i = 0; i < std::size(kTypes); ++i) {
        if (PlaceOf(kTypes[i].Type) != i) return false;
    }
    return true;
}
static_assert(StandInOrder(), "a type is found by its number");

}  // namespace

const OverlappedTypeRow& RowOf(OverlappedType type) {
    return kTypes[PlaceOf(type)];
}

int CallLowerOverlapped(OverlappedOperation* operation, SocketContext* context,
                        const CompletionNotice& notice) {
    return RowOf(operation->Operation).Execute(operation, context, notice);
}
