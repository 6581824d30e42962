// Where a connect goes: the same for every operation that connects, which differ in how they fail.
#pragma once

#include "provider/contexts/socket_context.h"
#include "provider/interception.h"

/// The errors of an operation that connects.
struct ConnectErrors {
    int Refused;
    int SplitFailed;
};

/// Remembers `target->name` as the socket's destination, asks for the verdict and, if it says so, splits the
/// connection. 0, with `*target` being what the lower socket is to be connected to, or the error. The context
/// is referenced by the caller, and no lock is held.
int RouteConnect(SocketContext* context, const ConnectErrors& errors, ConnectTarget* target);
