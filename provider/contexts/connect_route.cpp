// See connect_route.h.
#include "provider/contexts/connect_route.h"

#include "base/trace.h"

int RouteConnect(SocketContext* context, const ConnectErrors& errors, ConnectTarget* target) {
    context->StoreDestination(target->name, target->length);
    AskConnectVerdict(context, target);
    // Not by `Blocked` and `RelayWanted`, which another thread's connect of the same socket may have changed.
    if (target->way == ConnectTarget::Way::kDirect) return 0;
    if (target->way == ConnectTarget::Way::kRefused) return errors.Refused;
    if (SplitConnection(context, target)) return 0;
    Trace("ERROR:Failed to connect the server socket in ConnectEx after splitting sockets.#Details: %s #\n",
          DescribeContext(context).c_str());
    AbandonSplit(context);
    return errors.SplitFailed;
}
