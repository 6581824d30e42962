// Modules as the Windows API has them.
#include <windows.h>

#include <algorithm>
#include <string>

#include "platform/kernel/fault_points.h"
#include "platform/kernel/last_error.h"
#include "platform/kernel/modules.h"
#include "platform/kernel/text.h"

using platform::Fail;
using platform::PlatformCall;

namespace {

/// Copies a path as GetModuleFileName does: cut and terminated when it does not fit.
template <class Text, class Character>
DWORD DeliverPath(const Text& path, Character* buffer, DWORD size) {
    if (path.empty()) return 0;
    if (size == 0) return Fail<DWORD>(ERROR_INSUFFICIENT_BUFFER, 0);
    const std::size_t copied = std::min<std::size_t>(path.size(), size - 1);
    std::copy_n(path.begin(), copied, buffer);
    buffer[copied] = 0;
    if (copied == path.size()) {
        SetLastError(ERROR_SUCCESS);
        return static_cast<DWORD>(copied);
    }
    return Fail<DWORD>(ERROR_INSUFFICIENT_BUFFER, size);
}

}  // namespace

HMODULE LoadLibraryA(LPCSTR path) {
    PlatformCall call("LoadLibraryA", ERROR_MOD_NOT_FOUND);
    if (call.Fails()) return nullptr;
    if (path == nullptr) return Fail<HMODULE>(ERROR_INVALID_PARAMETER, nullptr);
    return platform::LoadModule(path);
}

HMODULE LoadLibraryW(LPCWSTR path) {
    PlatformCall call("LoadLibraryW", ERROR_MOD_NOT_FOUND);
    if (call.Fails()) return nullptr;
    if (path == nullptr) return Fail<HMODULE>(ERROR_INVALID_PARAMETER, nullptr);
    return platform::LoadModule(platform::ToNarrow(path));
}

BOOL FreeLibrary(HMODULE module) {
    PlatformCall call("FreeLibrary", ERROR_MOD_NOT_FOUND);
    if (call.Fails()) return FALSE;
    return platform::FreeModule(module);
}

void FreeLibraryAndExitThread(HMODULE module, DWORD exitCode) {
    // The thread's code may be gone after the first step; this function's is not. Nobody could be told of a
    // failure, so there is none to be caused.
    platform::FreeModule(module);
    ExitThread(exitCode);
}

FARPROC GetProcAddress(HMODULE module, LPCSTR name) {
    PlatformCall call("GetProcAddress", ERROR_PROC_NOT_FOUND);
    if (call.Fails()) return nullptr;
    return reinterpret_cast<FARPROC>(platform::FindExport(module, name));
}

HMODULE GetModuleHandleA(LPCSTR name) {
    PlatformCall call("GetModuleHandleA", ERROR_MOD_NOT_FOUND);
    if (call.Fails()) return nullptr;
    return platform::FindModule(name);
}

HMODULE GetModuleHandleW(LPCWSTR name) {
    PlatformCall call("GetModuleHandleW", ERROR_MOD_NOT_FOUND);
    if (call.Fails()) return nullptr;
    return name == nullptr ? platform::FindModule(nullptr)
                           : platform::FindModule(platform::ToNarrow(name).c_str());
}

BOOL GetModuleHandleExA(DWORD flags, LPCSTR name, HMODULE* module) {
    PlatformCall call("GetModuleHandleExA", ERROR_MOD_NOT_FOUND);
    if (call.Fails()) return FALSE;
    const bool byAddress = (flags & GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS) != 0;
    return platform::FindModuleEx(flags, byAddress ? nullptr : name, byAddress ? name : nullptr, module);
}

BOOL GetModuleHandleExW(DWORD flags, LPCWSTR name, HMODULE* module) {
    PlatformCall call("GetModuleHandleExW", ERROR_MOD_NOT_FOUND);
    if (call.Fails()) return FALSE;
    if ((flags & GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS) != 0)
        return platform::FindModuleEx(flags, nullptr, name, module);
    if (name == nullptr) return platform::FindModuleEx(flags, nullptr, nullptr, module);
    return platform::FindModuleEx(flags, platform::ToNarrow(name).c_str(), nullptr, module);
}

DWORD GetModuleFileNameA(HMODULE module, LPSTR path, DWORD size) {
    PlatformCall call("GetModuleFileNameA", ERROR_MOD_NOT_FOUND);
    if (call.Fails()) return 0;
    return DeliverPath(platform::PathOfModule(module), path, size);
}

DWORD GetModuleFileNameW(HMODULE module, LPWSTR path, DWORD size) {
    PlatformCall call("GetModuleFileNameW", ERROR_MOD_NOT_FOUND);
    if (call.Fails()) return 0;
    return DeliverPath(platform::ToWide(platform::PathOfModule(module)), path, size);
}

BOOL DisableThreadLibraryCalls(HMODULE module) {
    PlatformCall call("DisableThreadLibraryCalls", ERROR_MOD_NOT_FOUND);
    if (call.Fails()) return FALSE;
    return platform::DeclineThreadCalls(module);
}
