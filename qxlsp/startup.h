// Starting and stopping the whole of the layer, for the entry points: the one place that knows every part.
#pragma once

#include <winsock2.h>

#include <windows.h>

/// Ends everything that still runs when the library is unloaded.
void ReleaseLayerAtDetach();
