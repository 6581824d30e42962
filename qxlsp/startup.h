// Starting and stopping the whole of the layer, for the entry points: the one place that knows every part.
#pragma once

#include <winsock2.h>

#include <windows.h>

/// Ends everything that still runs when the library is detached; unless it is being unloaded, because the
/// process ends.
void ReleaseLayerAtDetach(bool unloading);
