// Tells the analyzer of a bind, which it may refuse, and of a close, which is the last that it hears of the
// socket.
#include <winsock2.h>

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <utility>

#include "base/layer_call.h"
#include "base/trace.h"
#include "identity/request_fields.h"
#include "messages/analyzer_messages.h"
#include "messages/message_transport.h"
#include "provider/contexts/socket_context.h"
#include "provider/interception.h"
#include "relay/channel/analyzer_channel.h"
#include "relay/channel/spy_exchange.h"
#include "relay/channel/spy_socket.h"
#include "relay/channel/verdict_flags.h"
#include "relay/interception/relayed_report.h"
#include "relay/split/relay_listener.h"
#include "relay/split/split_connection.h"

namespace {

/// How long a close waits for another thread's exchange on the spy socket, which it interrupts.
constexpr DWORD kCloseTurnMilliseconds = 1000;

/// The name that the relay's listener binds. An application's socket with it can't be told from the
/// listener's; it gets in nobody's way, since the name is taken.
bool IsRelayListenerName(const sockaddr* name, int length) {
    if (name == nullptr || length < static_cast<int>(sizeof(sockaddr_in))) return false;
    const auto& ipv4 = *reinterpret_cast<const sockaddr_in*>(name);
    const DWORD port = RelayListenPort;
    return ipv4.sin_family == AF_INET && port != 0 && ntohs(ipv4.sin_port) == port &&
           ipv4.sin_addr.s_addr == htonl(INADDR_LOOPBACK);
}

/// Asks in the exchange's turn; a bind that can't be asked about goes ahead. Throws std::bad_alloc.
void AskAboutBind(SocketContext* context, const sockaddr* name, int length) {
    // One mark for the many calls on the spy socket.
    const LayerCall call;
    const SpyExchange exchange(context);
    if (!exchange.Entered() || exchange.Abandoned()) return;
    if (!ConnectSpySocket(context)) {
        Trace("ERROR:failed to connect to lsp server while binding\n");
        return;
    }
    LSPAnalyzerMessage request;
    FillRequestFields(request, context);
    std::memset(&request.LocalAddress, 0, sizeof(request.LocalAddress));
    const int longest = name->sa_family == AF_INET6 ? 28 : static_cast<int>(sizeof(sockaddr_in));
    std::memcpy(&request.LocalAddress, name, static_cast<std::size_t>(std::min(length, longest)));
    request.LocalPort = ntohs(reinterpret_cast<const sockaddr_in&>(request.LocalAddress).sin_port);
    request.Protocol = 0;
    request.Operation = OpBind;
    if (!SendMessage(request, context->SpySocket)) {
        Trace("ERROR:Closing spy socket because of send failure when binding:%d, layered socket %d \n",
              static_cast<int>(SOCKET{context->SpySocket}), static_cast<int>(SOCKET{context->LayeredSocket}));
        CloseSpySocket(context);
        return;
    }
    const SentRequest sent = {request.MessageId, request.BytesSent, request.BytesReceived};
    const PooledResponse answer = WaitForResponse(sent, context, INVALID_HANDLE_VALUE, &exchange.Abandoned());
    if (answer == nullptr) return;
    if (answer->Action == ActionBlock) {
        context->Blocked = TRUE;
        return;
    }
    // A verdict on the traffic comes with the connect.
    ClearTrafficFlags(context);
    context->RelayWanted = FALSE;
}

void TraceUntoldClose(const SocketContext* context, int error) {
    Trace("ERROR:Close socket - Failed to send to lsp server for original socket %d:%d, #Details: %s #\n",
          static_cast<int>(SOCKET{context->LayeredSocket}), error, DescribeContext(context).c_str());
}

/// The request, filled, or null without memory.
PooledRequest MakeCloseRequest(const SocketContext* context) {
    PooledRequest request = TakeRequest();
    if (request == nullptr) return nullptr;
    try {
        FillRequestFields(*request, context);
    } catch (const std::exception&) {
        return nullptr;
    }
    request->Operation = OpCloseSocket;
    return request;
}

void ForgetCounts(SocketContext* context) {
    context->BytesSent = 0;
    context->BytesRecv = 0;
}

/// Behind the exchange that was interrupted. What the application closes isn't kept from closing for long.
void TellCloseInTurn(SocketContext* context) {
    const SpyExchange exchange(context, kCloseTurnMilliseconds);
    if (!exchange.Entered()) {
        TraceUntoldClose(context, WSAETIMEDOUT);
        return;
    }
    const SOCKET spySocket = context->SpySocket;
    if (spySocket == INVALID_SOCKET) return;
    const PooledRequest request = MakeCloseRequest(context);
    if (request != nullptr && SendMessage(*request, spySocket)) {
        ForgetCounts(context);
    } else {
        TraceUntoldClose(context, request != nullptr ? WSAGetLastError() : WSAENOBUFS);
    }
    CloseSpySocket(context);
}

void TellClose(SocketContext* context) {
    const LayerCall call;
    if (context->RelayIndex == 0) {
        if (context->SpySocket != INVALID_SOCKET) TellCloseInTurn(context);
        return;
    }
    // The spy socket stays with the relay connection.
    PooledRequest request = MakeCloseRequest(context);
    if (request != nullptr && TellThroughRelay(*context, std::move(request))) {
        ForgetCounts(context);
    } else {
        TraceUntoldClose(context, WSAGetLastError());
    }
}

}  // namespace

void NotifyBind(SocketContext* context, const sockaddr* name, int namelen) {
    // The relay's own, bound by a thread that makes a split.
    if (context->OwnedByLayer) return;
    // No earlier connect's refusal is a refusal of the bind.
    context->Blocked = FALSE;
    context->BlockError = 0;
    if (IsSocketExempt(context)) {
        ClearTrafficFlags(context);
        return;
    }
    if (IsRelayListenerName(name, namelen)) {
        context->Own = TRUE;
        ClearTrafficFlags(context);
        context->RelayWanted = FALSE;
        return;
    }
    // A bind without a name, or of a split socket, fails by itself.
    if (name == nullptr || context->RelayIndex != 0) return;
    try {
        AskAboutBind(context, name, namelen);
    } catch (const std::exception&) {
        Trace("ERROR:failed to connect to lsp server while binding\n");
    }
}

void NotifyClose(SocketContext* context) {
    // The relay closes its own with its connection's locks held.
    if (context->OwnedByLayer) return;
    // Another thread's exchange gives its turn up, and leaves the spy socket to the close.
    AbandonWaits(context);
    if (!IsSocketExempt(context)) TellClose(context);
    LeaveSplit(context);
}

void NotifyReuse(SocketContext* context) {
    LeaveSplit(context);
    context->Protocol = 0;
    context->ProtocolProbed = 0;
}

void AbandonWaits(SocketContext* context) {
    if (SpyExchange::Abandon(context)) InterruptSpySocket(context);
}
