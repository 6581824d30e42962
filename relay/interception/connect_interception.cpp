// Puts a connect before the analyzer and applies its verdict. Runs on the application's thread, which waits
// for the answer with no lock held, but one thread at a time for each socket.
#include <winsock2.h>

#include <windows.h>

#include <exception>

#include "base/layer_call.h"
#include "base/trace.h"
#include "identity/request_fields.h"
#include "messages/analyzer_messages.h"
#include "messages/message_transport.h"
#include "provider/contexts/socket_context.h"
#include "provider/interception.h"
#include "relay/channel/analyzer_channel.h"
#include "relay/channel/fail_connect_policy.h"
#include "relay/channel/spy_exchange.h"
#include "relay/channel/spy_socket.h"
#include "relay/channel/verdict_flags.h"
#include "relay/split/split_connection.h"

namespace {

/// The code that is handled as ActionAllow by a connect alone.
constexpr std::uint32_t kActionAllowConnect = 7;

/// The request that was sent; its id is 0 when it could not be. Throws std::bad_alloc.
SentRequest SendConnectRequest(SocketContext* context, const SOCKADDR_STORAGE& destination) {
    LSPAnalyzerMessage request;
    // What this connect goes to; the context may hold the destination of another thread's by now.
    FillRequestFields(request, context, &destination);
    request.Operation = OpConnect;
    request.Protocol = 0;
    if (!SendMessage(request, context->SpySocket)) return {};
    return {request.MessageId, request.BytesSent, request.BytesReceived};
}

void ApplyAllow(SocketContext* context, std::uint32_t flags) {
    if ((flags & kFlagKeepFlags) != 0) return;
    context->ReportTraffic = (flags & kFlagReportTraffic) != 0;
    context->InspectData = (flags & kFlagInspectData) != 0;
    context->CountTraffic = (flags & kFlagCountTraffic) != 0;
    context->AnalyzerServes = (flags & kFlagAnalyzerServes) != 0;
    constexpr std::uint32_t kSplitting = kFlagRelayWanted | kFlagInspectData | kFlagAnalyzerServes;
    context->Split = FALSE;
    context->RelayWanted = context->SocketType == SOCK_STREAM && (flags & kSplitting) != 0;
}

void ApplyVerdict(SocketContext* context, const LSPAnalyzerMessageResponse& verdict, ConnectTarget* target) {
    switch (verdict.Action) {
        case ActionAllow:
        case kActionAllowConnect:
            ApplyAllow(context, verdict.Flags);
            break;
        case ActionBlock:
            ClearRoute(context);
            context->Blocked = TRUE;
            target->way = ConnectTarget::Way::kRefused;
            return;
        case ActionRedirect:
            ClearRoute(context);
            context->DestinationAddress.Store(&target->name, target->length);
            context->RelayAddress.Store(&verdict.RedirectAddress, sizeof(verdict.RedirectAddress));
            context->Split = TRUE;
            target->name = verdict.RedirectAddress;
            return;
        default:
            break;
    }
    if (context->RelayWanted) target->way = ConnectTarget::Way::kThroughRelay;
}

enum class AskResult { kNotNeeded, kAnswered, kFailed };

/// Asks in the exchange's turn and applies the answer. Throws std::bad_alloc.
AskResult AskAnalyzer(SocketContext* context, const SpyExchange& exchange, ConnectTarget* target) {
    // One mark for the many calls on the spy socket.
    const LayerCall call;
    if (!exchange.Entered() || exchange.Abandoned()) return AskResult::kFailed;
    if (!PrepareAnalyzerChannel(context, &target->name, target->length)) {
        Trace("ERROR:Failed to connect to lsp server. #Details: %s #\n", DescribeContext(context).c_str());
        return AskResult::kFailed;
    }
    if (IsSocketExempt(context)) return AskResult::kNotNeeded;

    const SentRequest request = SendConnectRequest(context, target->name);
    if (request.MessageId == 0) {
        Trace("ERROR:Closing spy socket because of send failure 8:%d. #Details: %s # \n",
              static_cast<int>(context->SpySocket), DescribeContext(context).c_str());
        CloseSpySocket(context);
        return AskResult::kFailed;
    }
    const PooledResponse verdict =
        WaitForResponse(request, context, INVALID_HANDLE_VALUE, &exchange.Abandoned());
    if (verdict == nullptr) return AskResult::kFailed;
    ApplyVerdict(context, *verdict, target);
    return AskResult::kAnswered;
}

/// As if it couldn't be asked when memory runs out. The spy socket then stays with the context, which closes
/// it.
AskResult TryAskAnalyzer(SocketContext* context, const SpyExchange& exchange, ConnectTarget* target) {
    try {
        return AskAnalyzer(context, exchange, target);
    } catch (const std::exception&) {
        return AskResult::kFailed;
    }
}

/// Asks about a stream connect and applies the verdict, or the policy for when there is none.
void AskConnectVerdict(SocketContext* context, const SpyExchange& exchange, ConnectTarget* target) {
    const AskResult result = TryAskAnalyzer(context, exchange, target);
    if (result == AskResult::kAnswered) return;
    ClearRoute(context);
    if (result == AskResult::kNotNeeded) return;
    // Its lower socket may be open for a moment still, and nobody was asked.
    if (exchange.Abandoned()) {
        target->way = ConnectTarget::Way::kSocketClosed;
        return;
    }
    if (ApplyFailConnectPolicy(context)) target->way = ConnectTarget::Way::kRefused;
}

/// To the relay that the socket is split through already, as when an application polls a connect by calling
/// it again. False when it is not.
bool GoToRelayAgain(const SocketContext* context, ConnectTarget* target) {
    if (context->RelayIndex == 0) return false;
    target->name = context->RelayAddress.Load();
    target->length = sizeof(target->name);
    target->way = ConnectTarget::Way::kToRelayAgain;
    return true;
}

}  // namespace

void InterceptConnect(SocketContext* context, ConnectTarget* target) {
    // A connect that is polled by calling it again may have learnt already that its server is out of reach.
    if (context->RelayIndex == 0) {
        context->Blocked = FALSE;
        context->BlockError = 0;
    }
    // Where an earlier connect of a stream went says nothing about this one.
    if (context->SocketType == SOCK_STREAM) context->LocalDestination = FALSE;
    if (IsSocketExempt(context) || context->SocketType != SOCK_STREAM) {
        ClearTrafficFlags(context);
        ClearRoute(context);
        return;
    }
    // From the question to the split in one turn: nobody else replaces the spy socket in between.
    const SpyExchange exchange(context);
    if (GoToRelayAgain(context, target)) return;
    AskConnectVerdict(context, exchange, target);
    if (target->way != ConnectTarget::Way::kThroughRelay || SplitConnection(context, target)) return;
    Trace("ERROR:Failed to connect the server socket in ConnectEx after splitting sockets.#Details: %s #\n",
          DescribeContext(context).c_str());
    target->way = ConnectTarget::Way::kSplitFailed;
}

void AbandonSplit(SocketContext* context) {
    CloseSplit(context);
}
