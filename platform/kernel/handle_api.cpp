// Handles as the Windows API has them.
#include <windows.h>

#include "platform/kernel/fault_points.h"
#include "platform/kernel/handles.h"
#include "platform/kernel/last_error.h"

using platform::Fail;
using platform::PlatformCall;

BOOL CloseHandle(HANDLE object) {
    PlatformCall call("CloseHandle", ERROR_INVALID_HANDLE);
    if (call.Fails()) return FALSE;
    if (object == GetCurrentProcess() || object == GetCurrentThread()) return TRUE;
    return platform::CloseOpenHandle(object) ? TRUE : Fail(ERROR_INVALID_HANDLE);
}

BOOL GetHandleInformation(HANDLE object, LPDWORD flags) {
    PlatformCall call("GetHandleInformation", ERROR_INVALID_HANDLE);
    if (call.Fails()) return FALSE;
    if (object != GetCurrentProcess() && platform::ReferenceHandle(object) == nullptr)
        return Fail(ERROR_INVALID_HANDLE);
    *flags = 0;
    return TRUE;
}

BOOL DuplicateHandle(HANDLE sourceProcess, HANDLE source, HANDLE targetProcess, LPHANDLE target, DWORD, BOOL,
                     DWORD options) {
    PlatformCall call("DuplicateHandle", ERROR_INVALID_HANDLE);
    if (call.Fails()) return FALSE;
    if (sourceProcess != GetCurrentProcess()) return Fail(ERROR_INVALID_HANDLE);
    const bool closeSource = (options & DUPLICATE_CLOSE_SOURCE) != 0;
    if (target == nullptr) {
        return closeSource && platform::CloseOpenHandle(source) ? TRUE : Fail(ERROR_INVALID_HANDLE);
    }
    if (targetProcess != GetCurrentProcess()) return Fail(ERROR_INVALID_HANDLE);
    std::shared_ptr<platform::Object> object = platform::ReferenceHandle(source);
    if (object == nullptr) return Fail(ERROR_INVALID_HANDLE);
    const HANDLE duplicate = platform::OpenHandle(std::move(object));
    if (closeSource) platform::CloseOpenHandle(source);
    if (duplicate == nullptr) return FALSE;
    *target = duplicate;
    return TRUE;
}
