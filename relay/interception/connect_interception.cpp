// Puts a connect before the analyzer and applies its verdict. Runs on the application's thread, which waits
// for the answer with no lock held, but one thread at a time for each socket.
#include <winsock2.h>

#include <windows.h>

#include <cstring>
#include <exception>

#include "base/trace.h"
#include "identity/request_fields.h"
#include "messages/analyzer_messages.h"
#include "messages/message_transport.h"
#include "provider/contexts/socket_context.h"
#include "provider/interception.h"
#include "provider/process_state.h"
#include "relay/channel/analyzer_channel.h"
#include "relay/channel/fail_connect_policy.h"
#include "relay/channel/socket_address.h"
#include "relay/channel/spy_exchange.h"
#include "relay/channel/spy_socket.h"
#include "relay/channel/verdict_flags.h"

namespace {

/// The code that is handled as ActionAllow by a connect alone.
constexpr std::uint32_t kActionAllowConnect = 7;

/// Id of the request that was sent, or 0. Throws std::bad_alloc.
DWORD SendConnectRequest(SocketContext* context, const sockaddr* name, int namelen) {
    LSPAnalyzerMessage request;
    FillRequestFields(request, context);
    // What this connect goes to; the context may hold the destination of another thread's by now.
    request.RemoteAddress = CopyAddress(name, namelen);
    request.RemotePort = ntohs(reinterpret_cast<const sockaddr_in&>(request.RemoteAddress).sin_port);
    request.Operation = OpConnect;
    request.SocketType = static_cast<std::uint32_t>(context->SocketType);
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

void ApplyVerdict(SocketContext* context, const LSPAnalyzerMessageResponse& verdict, const sockaddr* name,
                  int namelen, ConnectTarget* target) {
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
            context->DestinationAddress.Store(name, namelen);
            context->RelayAddress.Store(&verdict.RedirectAddress, sizeof(verdict.RedirectAddress));
            context->Split = TRUE;
            target->name = verdict.RedirectAddress;
            return;
        default:
            break;
    }
    if (context->RelayWanted) target->way = ConnectTarget::Way::kThroughRelay;
}

enum class Question { kNeedless, kAnswered, kFailed };

/// Asks in the context's turn and applies the answer. Throws std::bad_alloc.
Question AskAnalyzer(SocketContext* context, const sockaddr* name, int namelen, ConnectTarget* target) {
    const SpyExchange exchange(context);
    if (!exchange.Entered() || exchange.Abandoned()) return Question::kFailed;
    if (!PrepareAnalyzerChannel(context, name, namelen)) {
        Trace("ERROR:Failed to connect to lsp server. #Details: %s #\n", DescribeContext(context).c_str());
        return Question::kFailed;
    }
    if (IsSocketExempt(context)) return Question::kNeedless;

    const DWORD messageId = SendConnectRequest(context, name, namelen);
    if (messageId == 0) {
        Trace("ERROR:Closing spy socket because of send failure 8:%d. #Details: %s # \n",
              static_cast<int>(context->SpySocket), DescribeContext(context).c_str());
        CloseSpySocket(context);
        return Question::kFailed;
    }
    const PooledResponse verdict =
        WaitForResponse(messageId, context, INVALID_HANDLE_VALUE, &exchange.Abandoned());
    if (verdict == nullptr) return Question::kFailed;
    ApplyVerdict(context, *verdict, name, namelen, target);
    return Question::kAnswered;
}

/// As if it couldn't be asked when memory runs out. The spy socket then stays with the context, which closes
/// it.
Question TryAskAnalyzer(SocketContext* context, const sockaddr* name, int namelen, ConnectTarget* target) {
    try {
        return AskAnalyzer(context, name, namelen, target);
    } catch (const std::exception&) {
        return Question::kFailed;
    }
}

}  // namespace

bool AskConnectVerdict(SocketContext* context, const sockaddr* name, int namelen, ConnectTarget* nameOut,
                       int*) {
    if (context == nullptr) return true;
    context->Blocked = FALSE;
    context->BlockError = 0;
    if (IsSocketExempt(context) || context->SocketType != SOCK_STREAM) {
        ClearTrafficFlags(context);
        ClearRoute(context);
        return true;
    }
    const Question question = TryAskAnalyzer(context, name, namelen, nameOut);
    if (question == Question::kAnswered) return true;
    ClearRoute(context);
    if (question == Question::kNeedless) return true;
    if (ApplyFailConnectPolicy(context)) nameOut->way = ConnectTarget::Way::kRefused;
    return false;
}

bool SplitConnection(SOCKET, SocketContext* context, const sockaddr*, int, ConnectTarget*, int*) {
    // There is nothing yet that could carry a split connection: it fails as one does whose relay can't be
    // made. In its turn, since another thread that connects the same socket may be reading the spy socket;
    // one that doesn't get it leaves the spy socket to the context.
    const SpyExchange exchange(context);
    if (exchange.Entered()) CloseSpySocket(context);
    context->Split = FALSE;
    return false;
}

void AbandonSplit(SOCKET, SocketContext*) {}
