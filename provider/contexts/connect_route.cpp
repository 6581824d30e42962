// See connect_route.h.
#include "provider/contexts/connect_route.h"

int RouteConnect(SocketContext* context, const ConnectErrors& errors, ConnectTarget* target) {
    context->StoreDestination(target->name, target->length);
    InterceptConnect(context, target);
    // Not by `Blocked` and `RelayWanted`, which another thread's connect of the same socket may have changed.
    switch (target->way) {
        case ConnectTarget::Way::kRefused:
            return errors.Refused;
        case ConnectTarget::Way::kSplitFailed:
            return errors.SplitFailed;
        case ConnectTarget::Way::kSocketClosed:
            return WSAENOTSOCK;
        case ConnectTarget::Way::kDirect:
        case ConnectTarget::Way::kThroughRelay:
        case ConnectTarget::Way::kToRelayAgain:
            break;
    }
    return 0;
}
