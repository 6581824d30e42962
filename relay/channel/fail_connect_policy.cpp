// See fail_connect_policy.h.
#include "relay/channel/fail_connect_policy.h"

#include "provider/contexts/socket_context.h"
#include "relay/channel/settings.h"

bool ApplyFailConnectPolicy(SocketContext* context) {
    if (!StopsActivityOnFailConnect()) return false;
    context->Blocked = TRUE;
    return true;
}
