// Looks at the data that the application sends and receives. Whether it is a stream's or a datagram is the
// socket's matter, not that of the operation that the application has chosen.
#include <algorithm>
#include <cstdint>

#include "messages/analyzer_messages.h"
#include "protocols/protocol_table.h"
#include "provider/contexts/socket_context.h"
#include "provider/interception.h"
#include "relay/channel/verdict_flags.h"
#include "relay/interception/traffic.h"

const TrafficDirection kSending = {false, kProbedSent, OpSend, OpSendProtocol, "4", "5"};
const TrafficDirection kReceiving = {true, kProbedReceived, OpRecv, OpRecvProtocol, "1", "in recv from lsp"};

namespace {

bool LookAt(const Traffic& traffic, const sockaddr* peer) {
    SocketContext* const context = traffic.Context;
    if (context->SocketType == SOCK_STREAM) return !IsSocketExempt(context) && LookAtStream(traffic);
    if (IsSocketExempt(context)) {
        ClearTrafficFlags(context);
        return false;
    }
    return LookAtDatagram(traffic, peer);
}

/// A receive that has brought nothing leaves the memory of the application as it was, and shows nothing of
/// what the peer says.
bool LookAtReceived(SocketContext* context, const WSABUF* buffers, DWORD count, const DWORD* bytesReceived,
                    const sockaddr* from) {
    if (context->OwnedByLayer || bytesReceived == nullptr || *bytesReceived == 0) return false;
    return LookAt({context, kReceiving, buffers, count, *bytesReceived}, from);
}

void LookAtSent(SocketContext* context, const WSABUF* buffers, DWORD count, const sockaddr* to) {
    if (context->OwnedByLayer) return;
    // Nobody is there to be sent to, whatever the analyzer would say.
    if (context->Blocked && context->BlockError != 0) return;
    LookAt({context, kSending, buffers, count, kMostSampleBytes}, to);
}

}  // namespace

std::uint32_t RecogniseProtocol(const Traffic& traffic, const DataSample& sample, std::uint16_t remotePort) {
    const BufferPiece first = sample.First();
    const auto length = static_cast<std::int32_t>(first.length);
    ProtocolSample probe = {};
    (traffic.Direction.Received ? probe.serverLength : probe.clientLength) = length;
    (traffic.Direction.Received ? probe.serverData : probe.clientData) = first.data;
    probe.localPort = traffic.Context->LocalAddress.Port();
    probe.remotePort = remotePort;
    return ClassifyConnection(probe) != 0 ? probe.protocol : std::uint32_t{kProtocolNone};
}

void AllowSending(const Traffic& traffic) {
    SocketContext* const context = traffic.Context;
    if (traffic.Direction.Received || context->BlockError != 0) return;
    context->Blocked = FALSE;
    // The relay may have found that out just now.
    if (context->BlockError != 0) context->Blocked = TRUE;
}

bool IsReceiveLookedAt(const SocketContext* context) {
    if (context->OwnedByLayer || IsSocketExempt(context)) return false;
    return context->SocketType == SOCK_STREAM ? IsStreamLookedAt(*context, kReceiving)
                                              : IsDatagramLookedAt(*context, kReceiving);
}

bool AnalyzeReceived(SocketContext* context, const WSABUF* buffers, DWORD count, const DWORD* bytesReceived) {
    return LookAtReceived(context, buffers, count, bytesReceived, nullptr);
}

void AnalyzeSent(SocketContext* context, const WSABUF* buffers, DWORD count) {
    LookAtSent(context, buffers, count, nullptr);
}

bool AnalyzeReceivedFrom(SocketContext* context, const WSABUF* buffers, DWORD count,
                         const DWORD* bytesReceived, const sockaddr* from) {
    return LookAtReceived(context, buffers, count, bytesReceived, from);
}

void AnalyzeSentTo(SocketContext* context, const WSABUF* buffers, DWORD count, const sockaddr* to) {
    LookAtSent(context, buffers, count, to);
}
