// The library's only diagnostics: one line at a time on the debug output. Nothing is written to files.
// Any thread may trace, with any lock held; the last error of the calling thread is left as it was.
#pragma once

#if defined(__GNUC__)
#define QX_PRINTF_ARGUMENTS(formatIndex, firstIndex) __attribute__((format(printf, formatIndex, firstIndex)))
#else
#define QX_PRINTF_ARGUMENTS(formatIndex, firstIndex)
#endif

/// Formats by the printf rules into 512 bytes (a longer message is cut) and hands the text to
/// OutputDebugStringA.
void Trace(const char* format, ...) QX_PRINTF_ARGUMENTS(1, 2);
