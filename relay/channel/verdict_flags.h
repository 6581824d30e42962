// What a verdict leaves in a socket's context, and how it is taken back. Any thread with a reference to the
// context.
#pragma once

#include "provider/contexts/socket_context.h"

/// Clears what a verdict said about the traffic of the socket: nothing of it is looked at from now on.
inline void ClearTrafficFlags(SocketContext* context) {
    context->ReportTraffic = FALSE;
    context->InspectData = FALSE;
    context->CountTraffic = FALSE;
    context->AnalyzerServes = FALSE;
}

/// Clears what a verdict said about the way that the connection takes, so that the verdict of an earlier
/// attempt doesn't steer a later one.
inline void ClearRoute(SocketContext* context) {
    context->RelayWanted = FALSE;
    context->Split = FALSE;
}
