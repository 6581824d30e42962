// The wait functions and Sleep.
#include <windows.h>

#include <algorithm>
#include <array>
#include <memory>

#include "platform/kernel/fault_points.h"
#include "platform/kernel/last_error.h"
#include "platform/kernel/wait.h"

using platform::Fail;
using platform::PlatformCall;
using platform::WaitableObject;
using platform::WaitOutcome;
using platform::WaitResult;

namespace {

DWORD ToWaitStatus(const WaitOutcome& outcome) {
    switch (outcome.result) {
        case WaitResult::kObject:
            return WAIT_OBJECT_0 + outcome.index;
        case WaitResult::kTimeout:
            return WAIT_TIMEOUT;
        case WaitResult::kApc:
            return WAIT_IO_COMPLETION;
        case WaitResult::kTerminated:
            break;
    }
    return Fail(ERROR_OPERATION_ABORTED, WAIT_FAILED);
}

DWORD WaitForOne(HANDLE object, DWORD milliseconds, bool alertable) {
    const std::shared_ptr<platform::Object> referenced = platform::ReferenceHandle(object);
    WaitableObject* waitable = referenced != nullptr ? referenced->AsWaitable() : nullptr;
    if (waitable == nullptr) return Fail(ERROR_INVALID_HANDLE, WAIT_FAILED);
    return ToWaitStatus(platform::WaitForObjects(&waitable, 1, false, milliseconds, alertable));
}

DWORD WaitForSeveral(DWORD count, const HANDLE* objects, bool waitAll, DWORD milliseconds, bool alertable) {
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || objects == nullptr)
        return Fail(ERROR_INVALID_PARAMETER, WAIT_FAILED);
    std::array<std::shared_ptr<platform::Object>, MAXIMUM_WAIT_OBJECTS> referenced;
    std::array<WaitableObject*, MAXIMUM_WAIT_OBJECTS> waitables;
    for (DWORD i = 0; i < count; ++i) {
        referenced[i] = platform::ReferenceHandle(objects[i]);
        waitables[i] = referenced[i] != nullptr ? referenced[i]->AsWaitable() : nullptr;
        if (waitables[i] == nullptr) return Fail(ERROR_INVALID_HANDLE, WAIT_FAILED);
        if (waitAll &&
            std::find(waitables.begin(), waitables.begin() + i, waitables[i]) != waitables.begin() + i)
            return Fail(ERROR_INVALID_PARAMETER, WAIT_FAILED);
    }
    return ToWaitStatus(platform::WaitForObjects(waitables.data(), count, waitAll, milliseconds, alertable));
}

}  // namespace

DWORD WaitForSingleObject(HANDLE object, DWORD milliseconds) {
    PlatformCall call("WaitForSingleObject", ERROR_INVALID_HANDLE);
    if (call.Fails()) return WAIT_FAILED;
    return WaitForOne(object, milliseconds, false);
}

DWORD WaitForSingleObjectEx(HANDLE object, DWORD milliseconds, BOOL alertable) {
    PlatformCall call("WaitForSingleObjectEx", ERROR_INVALID_HANDLE);
    if (call.Fails()) return WAIT_FAILED;
    return WaitForOne(object, milliseconds, alertable != FALSE);
}

DWORD WaitForMultipleObjects(DWORD count, const HANDLE* objects, BOOL waitAll, DWORD milliseconds) {
    PlatformCall call("WaitForMultipleObjects", ERROR_INVALID_HANDLE);
    if (call.Fails()) return WAIT_FAILED;
    return WaitForSeveral(count, objects, waitAll != FALSE, milliseconds, false);
}

DWORD WaitForMultipleObjectsEx(DWORD count, const HANDLE* objects, BOOL waitAll, DWORD milliseconds,
                               BOOL alertable) {
    PlatformCall call("WaitForMultipleObjectsEx", ERROR_INVALID_HANDLE);
    if (call.Fails()) return WAIT_FAILED;
    return WaitForSeveral(count, objects, waitAll != FALSE, milliseconds, alertable != FALSE);
}

void Sleep(DWORD milliseconds) {
    SleepEx(milliseconds, FALSE);
}

DWORD SleepEx(DWORD milliseconds, BOOL alertable) {
    // Cannot fail, but a terminated thread ends here.
    const platform::PlatformScope scope;
    const WaitOutcome outcome = platform::WaitForObjects(nullptr, 0, false, milliseconds, alertable != FALSE);
    return outcome.result == WaitResult::kApc ? WAIT_IO_COMPLETION : 0;
}
