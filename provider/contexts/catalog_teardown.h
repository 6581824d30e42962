// The end of the catalog with everything in it. Both run under GlobalLock, so no thread can reach a context
// meanwhile; what threads inside a call still hold is released by the last of them.
#pragma once

#include <winsock2.h>

#include "provider/catalog/lsp_entry.h"

/// Gives up the catalog: closes every socket, cleans up the lower providers (not below a layered one while
/// detaching) and releases entries, event and heap, all but what threads inside a call still hold: the last
/// of them releases it. True when nothing was held. Call with GlobalLock held.
bool FreeLspCatalog(bool detaching, LPINT error);

/// Ends every context of an entry for good: unlinks it, closes its lower socket hard, gives its handle back
/// and frees it. A context that a thread still uses is left to that thread's last dereference. While
/// detaching nothing is called below a layered lower provider. No context can join the entry afterwards. Call
/// with GlobalLock held.
void CloseProviderSockets(LspEntry* provider, bool detaching);

/// Gives the handle of a context that is in no list back and frees it, unless a thread is still inside an
/// operation: then the context, its entry and the lower library stay for that thread. Call with GlobalLock
/// held.
void GiveUpContext(SocketContext* context);
