// See traffic_report.h.
#include "relay/interception/traffic_report.h"

#include <exception>
#include <utility>

#include "base/layer_call.h"
#include "base/trace.h"
#include "identity/request_fields.h"
#include "messages/message_transport.h"
#include "provider/contexts/socket_context.h"
#include "relay/channel/analyzer_channel.h"
#include "relay/channel/spy_exchange.h"
#include "relay/channel/spy_socket.h"
#include "relay/interception/relayed_report.h"

namespace {

/// The request, filled, or null without memory.
PooledRequest MakeRequest(const Traffic& traffic, ProtocolNews news, DataSample* sample,
                          const SOCKADDR_STORAGE* peer) {
    PooledRequest request = TakeRequest();
    if (request == nullptr) return nullptr;
    // What a datagram says on its way out is not told.
    const bool attached =
        news == ProtocolNews::kRecognised && (traffic.Direction.Received || peer == nullptr);
    if (attached && !sample->MoveTo(request.get())) return nullptr;
    try {
        FillRequestFields(*request, traffic.Context, peer);
    } catch (const std::exception&) {
        return nullptr;
    }
    const bool isNews = news != ProtocolNews::kNone;
    request->Operation = isNews ? traffic.Direction.ProtocolReport : traffic.Direction.Report;
    return request;
}

/// Asks on the context's own spy socket, in the exchange's turn.
PooledResponse AskDirectly(SocketContext* context, const PooledRequest& request, const SpyExchange& exchange,
                           const char* failure) {
    if (request == nullptr) return nullptr;
    const SOCKET spySocket = context->SpySocket;
    if (!SendMessage(*request, spySocket)) {
        Trace("ERROR:Closing spy socket because of send failure %s:%d.#Details: %s # \n", failure,
              static_cast<int>(spySocket), DescribeContext(context).c_str());
        CloseSpySocket(context);
        return nullptr;
    }
    const SentRequest sent = {request->MessageId, request->BytesSent, request->BytesReceived};
    return WaitForResponse(sent, context, INVALID_HANDLE_VALUE, &exchange.Abandoned());
}

bool ApplyVerdict(SocketContext* context, const PooledResponse& answer) {
    if (answer == nullptr || answer->Action != ActionBlock) return false;
    context->Blocked = TRUE;
    return true;
}

/// The request is made in the turn: its counts are what is left when the exchange before has ended. False
/// when nothing was asked.
bool AskInTurn(const Traffic& traffic, ProtocolNews news, DataSample* sample, PooledResponse* answer) {
    SocketContext* const context = traffic.Context;
    const SpyExchange exchange(context);
    if (!exchange.Entered() || exchange.Abandoned()) return false;
    // The one before may have given the channel up, or handed it to the relay.
    if (context->SpySocket == INVALID_SOCKET) return false;
    const PooledRequest request = MakeRequest(traffic, news, sample, nullptr);
    *answer = AskDirectly(context, request, exchange, traffic.Direction.StreamFailure);
    return request != nullptr;
}

}  // namespace

bool HasChannel(const SocketContext& context) {
    return context.RelayIndex != 0 || context.SpySocket != INVALID_SOCKET;
}

bool ReportStreamTraffic(const Traffic& traffic, ProtocolNews news, DataSample* sample) {
    // One mark for the many calls on the spy socket.
    const LayerCall call;
    SocketContext* const context = traffic.Context;
    AllowSending(traffic);
    PooledResponse answer;
    bool asked = true;
    if (context->RelayIndex != 0) {
        PooledRequest request = MakeRequest(traffic, news, sample, nullptr);
        asked = request != nullptr;
        if (asked) answer = AskThroughRelay(context, std::move(request), traffic.Direction.StreamFailure);
    } else {
        asked = AskInTurn(traffic, news, sample, &answer);
    }
    if (asked && answer == nullptr && traffic.Direction.Received) {
        Trace("ERROR: Could not get response for WSPRecvLSP.#Details: %s #!!!",
              DescribeContext(context).c_str());
    }
    return ApplyVerdict(context, answer);
}

bool ReportDatagram(const Traffic& traffic, ProtocolNews news, DataSample* sample,
                    const SOCKADDR_STORAGE& peer) {
    const LayerCall call;
    SocketContext* const context = traffic.Context;
    const SpyExchange exchange(context);
    if (!exchange.Entered() || exchange.Abandoned()) return false;
    // Without a channel the fail-connect policy may have refused it.
    if (context->SpySocket == INVALID_SOCKET && !PrepareAnalyzerChannel(context, &peer, sizeof(sockaddr_in)))
        return context->Blocked != FALSE;
    if (context->SpySocket == INVALID_SOCKET) return false;
    AllowSending(traffic);
    const PooledRequest request = MakeRequest(traffic, news, sample, &peer);
    return ApplyVerdict(context, AskDirectly(context, request, exchange, traffic.Direction.DatagramFailure));
}
