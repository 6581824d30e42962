// Puts into a request who asks and about which socket: one place, so that every operation reports the same
// way. Any thread; takes `IdentityLock` for the copy of the process's texts.
#pragma once

#include <winsock2.h>

class LSPAnalyzerMessage;
struct SocketContext;

/// Fills the process fields of `request` and, when `context` is given, its socket fields; the context's
/// verdict flags are or-ed into the request's flags. `peer` is the remote address, the context's destination
/// when it is null. Without a context the byte counters become 0 and the other socket fields stay as they
/// are. May throw std::bad_alloc while it copies the texts.
void FillRequestFields(LSPAnalyzerMessage& request, const SocketContext* context,
                       const SOCKADDR_STORAGE* peer = nullptr);
