// Puts a connect before the analyzer and applies its verdict. Runs on the application's thread, which waits
// for the answer with no lock held, but one thread at a time for each socket.
#include <winsock2.h>

#include <windows.h>

#include <exception>

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

namespace {

/// The code that is handled as ActionAllow by a connect alone.
constexpr std::uint32_t kActionAllowConnect = 7;

/// Id of the request that was sent, or 0. Throws std::bad_alloc.
DWORD SendConnectRequest(SocketContext* context, const SOCKADDR_STORAGE& destination) {
    LSPAnalyzerMessage request;
    // What this connect goes to; the context may hold the destination of another thread's by now.
    FillRequestFields(request, context, &destination);
    request.Operation = OpConnect;
    request.Protocol = 0;
    return SendMessage(request, context->SpySocket) ? request.MessageId : 0;
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

/// Asks in the context's turn and applies the answer. Throws std::bad_alloc.
AskResult AskAnalyzer(SocketContext* context, ConnectTarget* target) {
    const SpyExchange exchange(context);
    if (!exchange.Entered() || exchange.Abandoned()) return AskResult::kFailed;
    if (!PrepareAnalyzerChannel(context, &target->name, target->length)) {
        Trace("ERROR:Failed to connect to lsp server. #Details: %s #\n", DescribeContext(context).c_str());
        return AskResult::kFailed;
    }
    if (IsSocketExempt(context)) return AskResult::kNotNeeded;

    const DWORD messageId = SendConnectRequest(context, target->name);
    if (messageId == 0) {
        Trace("ERROR:Closing spy socket because of send failure 8:%d. #Details: %s # \n",
              static_cast<int>(context->SpySocket), DescribeContext(context).c_str());
        CloseSpySocket(context);
        return AskResult::kFailed;
    }
    const PooledResponse verdict =
        WaitForResponse(messageId, context, INVALID_HANDLE_VALUE, &exchange.Abandoned());
    if (verdict == nullptr) return AskResult::kFailed;
    ApplyVerdict(context, *verdict, target);
    return AskResult::kAnswered;
}

/// As if it couldn't be asked when memory runs out. The spy socket then stays with the context, which closes
/// it.
AskResult TryAskAnalyzer(SocketContext* context, ConnectTarget* target) {
    try {
        return AskAnalyzer(context, target);
    } catch (const std::exception&) {
        return AskResult::kFailed;
    }
}

}  // namespace

bool AskConnectVerdict(SocketContext* context, ConnectTarget* target) {
    if (context == nullptr) return true;
    context->Blocked = FALSE;
    context->BlockError = 0;
    if (IsSocketExempt(context) || context->SocketType != SOCK_STREAM) {
        ClearTrafficFlags(context);
        ClearRoute(context);
        return true;
    }
    const AskResult result = TryAskAnalyzer(context, target);
    if (result == AskResult::kAnswered) return true;
    ClearRoute(context);
    if (result == AskResult::kNotNeeded) return true;
    if (ApplyFailConnectPolicy(context)) target->way = ConnectTarget::Way::kRefused;
    return false;
}

bool SplitConnection(SocketContext* context, ConnectTarget*) {
    // There is nothing yet that could carry a split connection: it fails as one does whose relay can't be
    // made. In its turn, since another thread that connects the same socket may be reading the spy socket;
    // one that doesn't get it leaves the spy socket to the context.
    const SpyExchange exchange(context);
    if (exchange.Entered()) CloseSpySocket(context);
    context->Split = FALSE;
    return false;
}

void AbandonSplit(SocketContext*) {}
