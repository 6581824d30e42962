// See trace.h.
#include "base/trace.h"

#include <winsock2.h>

#include <windows.h>

#include <cstdarg>
#include <cstdio>

void Trace(const char* format, ...) {
    // A host may look at its last error after a call into us that happened to trace.
    const DWORD lastError = GetLastError();
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    OutputDebugStringA(text);
    SetLastError(lastError);
}
