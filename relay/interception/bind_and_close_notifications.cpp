// What the interception does about a bind and a close of the application's socket.
#include "provider/contexts/socket_context.h"
#include "provider/interception.h"
#include "relay/channel/spy_exchange.h"
#include "relay/split/split_connection.h"

void NotifyBind(SocketContext* context, const sockaddr*, int) {
    // A bind isn't put to the analyzer, and no earlier connect's refusal is a refusal of the bind.
    context->Blocked = FALSE;
    context->BlockError = 0;
}

void NotifyClose(SocketContext* context) {
    // The relay closes its own with its connection's locks held.
    if (context->OwnedByLayer) return;
    // A thread that connects the socket still holds a reference and its spy socket, which goes with the
    // context; but it need not wait for an answer any more, nor does the close wait for it.
    SpyExchange::Abandon(context);
    LeaveSplit(context);
}

void NotifyReuse(SocketContext* context) {
    LeaveSplit(context);
}

void AbandonWaits(SocketContext* context) {
    SpyExchange::Abandon(context);
}
