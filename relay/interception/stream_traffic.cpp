// What is looked at and reported of a stream socket: its first bytes each way until the protocol is known or
// given up, and after that what the verdict asks for.
#include "protocols/protocol_table.h"
#include "provider/contexts/socket_context.h"
#include "relay/interception/traffic.h"
#include "relay/interception/traffic_report.h"
#include "relay/split/relay_connection_table.h"

namespace {

/// Bytes that the relay counts are reported by it.
bool TrafficReportDue(const SocketContext& context) {
    return context.ReportTraffic || (context.CountTraffic && !(context.InspectData && context.RelayWanted));
}

/// The relay's own reports name the protocol too.
void SetRelayProtocol(const SocketContext& context) {
    const RelayHold connection = FindRelayConnectionOf(context);
    if (connection) connection->Protocol = DWORD{context.Protocol};
}

bool IsTried(const SocketContext& context, const TrafficDirection& direction) {
    const DWORD protocol = context.Protocol;
    return protocol == kProtocolNone || (protocol == kProtocolHttp && !direction.Received);
}

/// Tries to recognise the protocol. A connection may carry something else after HTTP, so its sends are looked
/// at again and again.
ProtocolNews TryProtocol(const Traffic& traffic, const DataSample& sample) {
    SocketContext* const context = traffic.Context;
    const bool first = context->Protocol == kProtocolNone;
    // Nothing of what the side says has been seen.
    if (sample.IsEmpty()) return ProtocolNews::kNone;
    const DWORD probed = first ? context->ProtocolProbed.SetBits(traffic.Direction.ProbedBit) : 0;
    const std::uint32_t protocol = RecogniseProtocol(traffic, sample, context->DestinationAddress.Port());
    if (protocol == kProtocolNone && (!first || probed != kProbedBoth)) return ProtocolNews::kNone;
    context->Protocol = protocol != kProtocolNone ? DWORD{protocol} : kProtocolGivenUp;
    SetRelayProtocol(*context);
    return protocol != kProtocolNone ? ProtocolNews::kRecognised : ProtocolNews::kGivenUp;
}

}  // namespace

bool IsStreamLookedAt(const SocketContext& context, const TrafficDirection& direction) {
    return HasChannel(context) && (IsTried(context, direction) || TrafficReportDue(context));
}

bool LookAtStream(const Traffic& traffic) {
    SocketContext* const context = traffic.Context;
    if (!HasChannel(*context)) return false;
    DataSample sample;
    ProtocolNews news = ProtocolNews::kNone;
    if (IsTried(*context, traffic.Direction)) {
        // The operation will find out for itself that the memory is gone.
        if (!traffic.CopyTo(&sample)) return false;
        news = TryProtocol(traffic, sample);
    }
    if (news == ProtocolNews::kNone && !TrafficReportDue(*context)) return false;
    return ReportStreamTraffic(traffic, news, &sample);
}
