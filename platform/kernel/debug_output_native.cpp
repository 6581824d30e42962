// OutputDebugStringA under its public name.
#include <windows.h>

#include "platform/kernel/debug_output.h"

void OutputDebugStringA(LPCSTR text) {
    StandInOutputDebugStringA(text);
}
