// Getting a channel for a context, and getting the answer to a request on it.
#include "relay/channel/analyzer_channel.h"

#include "relay/channel/fail_connect_policy.h"
#include "relay/channel/local_destination.h"
#include "relay/channel/pending_responses.h"
#include "relay/channel/spy_socket.h"

#include "base/trace.h"
#include "messages/message_transport.h"
#include "provider/contexts/socket_context.h"
#include "provider/process_state.h"
#include "relay/channel/verdict_flags.h"

namespace {

PooledResponse ReceiveDirectly(DWORD messageId, SocketContext* context, const Atomic<bool>* abandoned) {
    PooledResponse response = TakeResponse();
    if (response != nullptr) {
        AnswerLimits limits;
        limits.stop = abandoned;
        if (ReceiveAnswer(*response, context->SpySocket, messageId, limits)) return response;
    }
    // A close that ends the wait has still something to say on the spy socket, and closes it.
    if (abandoned == nullptr || !*abandoned) CloseSpySocket(context);
    return nullptr;
}

/// Takes what has been reported off a count, which others may have ended meanwhile.
void TakeOff(Atomic<std::uint64_t>* counter, std::uint64_t reported) {
    for (;;) {
        const std::uint64_t count = *counter;
        if (counter->StoreIfStill(count, count > reported ? count - reported : 0)) return;
    }
}

bool Has(std::uint32_t flags, std::uint32_t bit) {
    return (flags & bit) != 0;
}

/// What every answer carries, whatever it answers.
void ApplyAnswer(SocketContext* context, const SentRequest& request,
                 const LSPAnalyzerMessageResponse& response) {
    if (context->CountTraffic) {
        // What has passed since the request was made is for the next one.
        TakeOff(&context->BytesSent, request.BytesSent);
        TakeOff(&context->BytesRecv, request.BytesReceived);
    }
    if (response.ExemptProcessId != 0) ExemptProcessId = response.ExemptProcessId;
    if (Has(response.Flags, kFlagKeepFlags)) return;
    context->ReportTraffic = Has(response.Flags, kFlagReportTraffic);
    context->CountTraffic = Has(response.Flags, kFlagCountTraffic);
    if (context->RelayWanted) {
        context->AnalyzerServes = Has(response.Flags, kFlagAnalyzerServes);
        context->InspectData = Has(response.Flags, kFlagInspectData);
    }
}

}  // namespace

bool PrepareAnalyzerChannel(SocketContext* context, const SOCKADDR_STORAGE* name, int namelen) {
    if (context == nullptr) return true;
    if (IsSocketExempt(context)) {
        ClearTrafficFlags(context);
        return true;
    }
    context->DestinationAddressLength = namelen;
    context->Blocked = FALSE;
    // Judged by what is asked about: another thread that uses the socket may have stored its own destination.
    const bool local = name == nullptr ? IsLocalDestination(context) : IsLocalDestination(context, *name);
    if (local) {
        context->LocalDestination = TRUE;
        return true;
    }
    if (name != nullptr && name->ss_family != AF_INET) return true;
    if (ConnectSpySocket(context)) return true;
    ApplyFailConnectPolicy(context);
    return false;
}

PooledResponse WaitForResponse(const SentRequest& request, SocketContext* context, HANDLE event,
                               const Atomic<bool>* abandoned) {
    if (request.MessageId == 0 || context == nullptr) return nullptr;
    const bool delivered = event != nullptr && event != INVALID_HANDLE_VALUE;
    PooledResponse response = delivered ? FetchDeliveredResponse(request.MessageId, context, event)
                                        : ReceiveDirectly(request.MessageId, context, abandoned);
    if (response != nullptr) ApplyAnswer(context, request, *response);
    return response;
}
