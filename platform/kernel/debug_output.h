// The debug output of the process. Dropped, unless somebody listens or the environment variable
// QX_DEBUG_OUTPUT is "stderr".
#pragma once

#include <windows.h>

namespace platform {

/// Told every text; with a lock held, so it writes no debug output itself.
using DebugOutputListener = void (*)(const char* text);

/// From now on `listener` is told, or nobody when it is null. The previous one is not told any more when this
/// returns.
void SetDebugOutputListener(DebugOutputListener listener);

}  // namespace platform

/// OutputDebugStringA under a name of its own, which a Windows program can carry beside the system's.
void StandInOutputDebugStringA(LPCSTR text);
