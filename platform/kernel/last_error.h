// Failing a platform function in one expression: the thread's last error, and the function's failure value.
#pragma once

#include <windows.h>

namespace platform {

template <class Value>
Value Fail(DWORD error, Value failureValue) {
    SetLastError(error);
    return failureValue;
}

inline BOOL Fail(DWORD error) {
    return Fail(error, FALSE);
}

}  // namespace platform
