// What is looked at and reported of a datagram socket: the first datagram each way, and all of them when they
// are counted. The channel to the analyzer is made by the first that is reported.
#include "protocols/protocol_table.h"
#include "provider/contexts/socket_context.h"
#include "relay/channel/local_destination.h"
#include "relay/interception/traffic.h"
#include "relay/interception/traffic_report.h"

namespace {

/// Tries to recognise the protocol from the first datagram of a direction; the other direction may have been
/// given up by then.
ProtocolNews TryProtocol(const Traffic& traffic, const DataSample& sample, std::uint16_t remotePort) {
    SocketContext* const context = traffic.Context;
    context->ProtocolProbed.SetBits(traffic.Direction.ProbedBit);
    const std::uint32_t protocol = RecogniseProtocol(traffic, sample, remotePort);
    if (protocol == kProtocolNone && context->Protocol == kProtocolGivenUp) return ProtocolNews::kNone;
    context->Protocol = protocol != kProtocolNone ? DWORD{protocol} : kProtocolGivenUp;
    return protocol != kProtocolNone ? ProtocolNews::kRecognised : ProtocolNews::kGivenUp;
}

bool IsUntried(const SocketContext& context, const TrafficDirection& direction) {
    if (context.Protocol == kProtocolNone) return true;
    return context.Protocol == kProtocolGivenUp && (context.ProtocolProbed & direction.ProbedBit) == 0;
}

}  // namespace

bool IsDatagramLookedAt(const SocketContext& context, const TrafficDirection& direction) {
    return context.CountTraffic || IsUntried(context, direction);
}

bool LookAtDatagram(const Traffic& traffic, const sockaddr* peer) {
    SocketContext* const context = traffic.Context;
    const SOCKADDR_STORAGE address = peer != nullptr ? *reinterpret_cast<const SOCKADDR_STORAGE*>(peer)
                                                     : context->DestinationAddress.Load();
    // Neither told nor connected: the datagram goes nowhere, or nobody knows where it came from.
    if (address.ss_family == 0) return false;
    if (IsLocalDestination(context, address)) {
        context->LocalDestination = TRUE;
        return false;
    }
    DataSample sample;
    ProtocolNews news = ProtocolNews::kNone;
    if (IsUntried(*context, traffic.Direction)) {
        if (!traffic.CopyTo(&sample)) return false;
        news = TryProtocol(traffic, sample, ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port));
    }
    if (news == ProtocolNews::kNone && !context->CountTraffic) return false;
    return ReportDatagram(traffic, news, &sample, address);
}
