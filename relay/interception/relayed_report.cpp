// See relayed_report.h.
#include "relay/interception/relayed_report.h"

#include <utility>

#include "base/trace.h"
#include "provider/contexts/socket_context.h"
#include "relay/channel/analyzer_channel.h"
#include "relay/channel/pending_responses.h"
#include "relay/channel/verdict_flags.h"
#include "relay/split/relay_close.h"
#include "relay/split/relay_flow.h"
#include "relay/split/spy_messages.h"

namespace {

/// What became of a request.
struct PostedRequest {
    HANDLE Event = INVALID_HANDLE_VALUE;  ///< of the waiter for its answer, if it has been registered
    bool Sent = false;
    SOCKET SpySocket = INVALID_SOCKET;
};

/// Registers the waiter and sends the request, with the connection in hand. It is held exclusively: a receive
/// of answers that the relay worker has held back goes on from here.
PostedRequest Post(const SocketContext& context, PooledRequest request) {
    PostedRequest posted;
    RelayHold connection = FindRelayConnectionOf(context, DataAccess::kExclusive);
    // Without sides there is nothing left to look at, nor anybody who reads answers.
    if (!connection || HasEnded(*connection)) return posted;
    posted.SpySocket = connection->SpySocket;
    posted.Event = CreateResponseWait(request->MessageId, posted.SpySocket);
    if (posted.Event != INVALID_HANDLE_VALUE) {
        RepostRelayReceives(connection);
        connection.DowngradeDataLock();
        posted.Sent =
            connection->SpySocket != INVALID_SOCKET && SendSpyReport(*connection, std::move(request));
        // Nothing can be told of the connection any more. It wakes the waiter.
        if (!posted.Sent) CloseEntireRelayConnection(connection, true);
    }
    ReleaseRelayConnection(connection);
    return posted;
}

void CloseUnanswered(const SocketContext& context, DWORD messageId) {
    Trace(
        "ERROR:Closing entire relay connection because we couldn't get a message response for message id %d "
        "for OL operation on socket %d, relay %d. Timeout while waiting for the event.#Details: %s #\n",
        static_cast<int>(messageId), static_cast<int>(SOCKET{context.LayeredSocket}),
        static_cast<int>(DWORD{context.RelayIndex}), DescribeContext(&context).c_str());
    RelayHold connection = FindRelayConnectionOf(context);
    // Its application has closed the socket, and so ended the wait: what is still to be passed on is.
    if (!connection || connection->OriginalSocket == INVALID_SOCKET) return;
    // The close of the application's socket is still to be told.
    CloseEntireRelayConnection(connection, false);
    ReleaseRelayConnection(connection);
}

void CopyFlags(const SocketContext& context) {
    const RelayHold connection = FindRelayConnectionOf(context);
    if (!connection) return;
    connection->InspectData = BOOL{context.InspectData};
    connection->CountTraffic = BOOL{context.CountTraffic};
    connection->ReportTraffic = BOOL{context.ReportTraffic};
    connection->AnalyzerServes = BOOL{context.AnalyzerServes};
}

}  // namespace

PooledResponse AskThroughRelay(SocketContext* context, PooledRequest request, const char* failure) {
    const SentRequest sent = {request->MessageId, request->BytesSent, request->BytesReceived};
    const PostedRequest posted = Post(*context, std::move(request));
    if (posted.SpySocket == INVALID_SOCKET) {
        // The connection has ended: there is nothing left to look at.
        ClearTrafficFlags(context);
        return nullptr;
    }
    if (posted.Event == INVALID_HANDLE_VALUE) return nullptr;
    if (!posted.Sent) {
        Trace("ERROR:Closing spy socket because of send failure %s:%d.#Details: %s # \n", failure,
              static_cast<int>(posted.SpySocket), DescribeContext(context).c_str());
    }
    PooledResponse answer = WaitForResponse(sent, context, posted.Event);
    if (answer == nullptr) {
        CloseUnanswered(*context, sent.MessageId);
    } else if ((answer->Flags & kFlagKeepFlags) == 0) {
        CopyFlags(*context);
    }
    return answer;
}

bool TellThroughRelay(const SocketContext& context, PooledRequest request) {
    const RelayHold connection = FindRelayConnectionOf(context);
    if (!connection || connection->SpySocket == INVALID_SOCKET) return true;
    return SendSpyReport(*connection, std::move(request));
}
