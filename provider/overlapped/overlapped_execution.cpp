// What a request asks the interception comes before its lower call, which then waits for nobody; what a
// receive has brought is looked at when it has ended (received_data.h).
#include "provider/overlapped/overlapped_execution.h"

#include <iterator>

#include "provider/catalog/lower_call.h"
#include "provider/contexts/connect_route.h"
#include "provider/contexts/lower_socket_use.h"
#include "provider/interception.h"
#include "provider/operation_failure.h"
#include "provider/overlapped/overlapped_completion.h"

namespace {

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

int JudgeNothing(OverlappedOperation*, SocketContext*) {
    return 0;
}

int JudgeReceive(OverlappedOperation*, SocketContext* context) {
    return context->Blocked ? context->RefusalError() : 0;
}

int JudgeSend(OverlappedOperation* operation, SocketContext* context) {
    const TransferArguments& transfer = operation->Transfer;
    AnalyzeSent(context, transfer.Buffers, transfer.BufferCount);
    return context->Blocked ? context->RefusalError() : 0;
}

const sockaddr* DestinationOf(const TransferArguments& transfer) {
    return transfer.ToLength > 0 ? reinterpret_cast<const sockaddr*>(&transfer.To) : nullptr;
}

int JudgeSendTo(OverlappedOperation* operation, SocketContext* context) {
    const TransferArguments& transfer = operation->Transfer;
    const sockaddr* const to = DestinationOf(transfer);
    if (to != nullptr && context->SocketType != SOCK_STREAM) {
        context->StoreDestination(transfer.To, transfer.ToLength);
    }
    AnalyzeSentTo(context, transfer.Buffers, transfer.BufferCount, to);
    return context->Blocked ? WSAECONNREFUSED : 0;
}

int JudgeConnect(OverlappedOperation* operation, SocketContext* context) {
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
    return 0;
}

int Receive(OverlappedOperation* operation, SocketContext*, const CompletionNotice& notice) {
    TransferArguments& transfer = operation->Transfer;
    return CallProcedure(operation, [&](const WSPPROC_TABLE& lower, LPINT error) {
        return lower.lpWSPRecv(operation->ProviderSocket, transfer.Buffers, transfer.BufferCount,
                               &transfer.Bytes, &transfer.Flags, &operation->ProviderOverlapped,
                               notice.Routine, notice.Thread, error);
    });
}

int ReceiveFrom(OverlappedOperation* operation, SocketContext*, const CompletionNotice& notice) {
    TransferArguments& transfer = operation->Transfer;
    return CallProcedure(operation, [&](const WSPPROC_TABLE& lower, LPINT error) {
        return lower.lpWSPRecvFrom(operation->ProviderSocket, transfer.Buffers, transfer.BufferCount,
                                   &transfer.Bytes, &transfer.Flags, transfer.From, transfer.FromLength,
                                   &operation->ProviderOverlapped, notice.Routine, notice.Thread, error);
    });
}

int Send(OverlappedOperation* operation, SocketContext*, const CompletionNotice& notice) {
    TransferArguments& transfer = operation->Transfer;
    return CallProcedure(operation, [&](const WSPPROC_TABLE& lower, LPINT error) {
        return lower.lpWSPSend(operation->ProviderSocket, transfer.Buffers, transfer.BufferCount,
                               &transfer.Bytes, transfer.Flags, &operation->ProviderOverlapped,
                               notice.Routine, notice.Thread, error);
    });
}

int SendTo(OverlappedOperation* operation, SocketContext*, const CompletionNotice& notice) {
    TransferArguments& transfer = operation->Transfer;
    return CallProcedure(operation, [&](const WSPPROC_TABLE& lower, LPINT error) {
        return lower.lpWSPSendTo(operation->ProviderSocket, transfer.Buffers, transfer.BufferCount,
                                 &transfer.Bytes, transfer.Flags, DestinationOf(transfer), transfer.ToLength,
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
    {OverlappedType::kIoctl, true, JudgeNothing, Ioctl, nullptr},
    {OverlappedType::kRecv, true, JudgeReceive, Receive, kReceived},
    {OverlappedType::kRecvFrom, true, JudgeReceive, ReceiveFrom, kReceived},
    {OverlappedType::kSend, true, JudgeSend, Send, kSent},
    {OverlappedType::kSendTo, true, JudgeSendTo, SendTo, kSent},
    {OverlappedType::kTransmitFile, false, JudgeNothing, TransmitFileBelow, kSent},
    {OverlappedType::kAcceptEx, false, JudgeNothing, Accept, kReceived},
    {OverlappedType::kConnectEx, false, JudgeConnect, Connect, kSent},
    {OverlappedType::kDisconnectEx, false, JudgeNothing, Disconnect, nullptr},
    {OverlappedType::kTransmitPackets, false, JudgeNothing, TransmitPacketsBelow, kSent},
    {OverlappedType::kWsaRecvMsg, true, JudgeNothing, ReceiveMessageBelow, kReceived},
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

int JudgeOverlapped(OverlappedOperation* operation, SocketContext* context) {
    if (operation->Judged) return 0;
    operation->Judged = TRUE;
    return RowOf(operation->Operation).Judge(operation, context);
}

int CallLowerOverlapped(OverlappedOperation* operation, SocketContext* context,
                        const CompletionNotice& notice) {
    if (const int refusal = JudgeOverlapped(operation, context); refusal != 0) return refusal;
    return RowOf(operation->Operation).Execute(operation, context, notice);
}
