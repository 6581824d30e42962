// The engine behind the front: the bridge, Winsock, the layer and the base provider. It starts with the
// program's first TCP or UDP socket and again in a child of fork at that child's first one, ends for the
// program when its exit handlers run, and may turn out not to start at all.
#pragma once

#include "platform/preload/bridge.h"

namespace preload {

/// The running engine; starts it at first need. Null when the program runs without it. errno is left alone.
const Bridge* TheBridge();

/// The engine if it runs already, or null.
const Bridge* RunningBridge();

/// A call of the bridge said kCannotStart: says so once. Returns only when the program may run without the
/// layer (QX_RUN_WITHOUT_LAYER); otherwise the process ends with status 125.
void GiveUpEngine();

/// Closes it if the engine still runs.
void CloseWinsockSocket(WinsockSocket socket);

}  // namespace preload
