// What happens to a connection that nobody could be asked about. Any thread, no lock.
#pragma once

struct SocketContext;

/// Sets the context's `Blocked`, and returns true, when the machine is configured to refuse connections that
/// can't be asked about. The setting is read from the registry at most every 600 s.
bool ApplyFailConnectPolicy(SocketContext* context);
