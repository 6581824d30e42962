// The registry, the user, the folders and the process image as the machine scripts them, and the clock's
// time. Keys are records of this file, marked so that a handle of the system is told from one of them.
#include <winsock2.h>

#include <windows.h>

#include <shlobj.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <set>
#include <string>

#include "platform/kernel/clock.h"
#include "platform/kernel/fault_points.h"
#include "platform/system/machine.h"
#include "platform/winsock/catalog.h"
#include "tests/windows/host/scripted_system.h"

namespace platform {

namespace {

constexpr REGSAM kWriteRights =
    KEY_SET_VALUE | KEY_CREATE_SUB_KEY | KEY_CREATE_LINK | DELETE | WRITE_DAC | WRITE_OWNER;

struct OpenKeys {
    std::mutex mutex;  // leaf
    std::set<std::string*> paths;
};

OpenKeys& TheOpenKeys() {
    static OpenKeys& keys = *new OpenKeys;
    return keys;
}

/// The path of an open or predefined key; empty when it is neither.
std::string PathOfKey(HKEY key) {
    if (key == HKEY_LOCAL_MACHINE) return "HKEY_LOCAL_MACHINE";
    if (key == HKEY_CURRENT_USER) return "HKEY_CURRENT_USER";
    const std::lock_guard<std::mutex> lock(TheOpenKeys().mutex);
    auto* const path = reinterpret_cast<std::string*>(key);
    return TheOpenKeys().paths.count(path) != 0 ? *path : std::string();
}

/// A key exists when it is in the machine, or when one below it is.
bool KeyExists(const Machine& machine, const std::string& path) {
    if (machine.registry.count(path) != 0) return true;
    const std::string prefix = path + "\\";
    const auto below = machine.registry.lower_bound(prefix);
    return below != machine.registry.end() &&
           lstrcmpiA(below->first.substr(0, prefix.size()).c_str(), prefix.c_str()) == 0;
}

LSTATUS OpenKey(HKEY key, LPCSTR subKey, REGSAM access, PHKEY result) {
    std::string path = PathOfKey(key);
    if (path.empty()) return ERROR_INVALID_HANDLE;
    if (subKey != nullptr && *subKey != 0) path += std::string("\\") + subKey;
    const auto machine = TheMachine();
    if (!KeyExists(*machine, path)) return ERROR_FILE_NOT_FOUND;
    if (machine->denyRegistryWrite && (access & kWriteRights) != 0) return ERROR_ACCESS_DENIED;
    auto* const record = new std::string(path);
    const std::lock_guard<std::mutex> lock(TheOpenKeys().mutex);
    TheOpenKeys().paths.insert(record);
    *result = reinterpret_cast<HKEY>(record);
    return ERROR_SUCCESS;
}

LSTATUS QueryValue(HKEY key, LPCSTR name, LPDWORD type, LPBYTE data, LPDWORD size) {
    const std::string path = PathOfKey(key);
    if (path.empty()) return ERROR_INVALID_HANDLE;
    const auto machine = TheMachine();
    const auto values = machine->registry.find(path);
    if (values == machine->registry.end()) return ERROR_FILE_NOT_FOUND;
    const auto found = values->second.find(name != nullptr ? name : "");
    if (found == values->second.end()) return ERROR_FILE_NOT_FOUND;
    const RegistryValue& value = found->second;
    const void* source = value.isNumber ? static_cast<const void*>(&value.number) : value.text.c_str();
    const auto needed = static_cast<DWORD>(value.isNumber ? sizeof(value.number) : value.text.size() + 1);
    if (type != nullptr) *type = value.isNumber ? REG_DWORD : REG_SZ;
    if (size == nullptr) return data == nullptr ? ERROR_SUCCESS : ERROR_INVALID_PARAMETER;
    const DWORD room = *size;
    *size = needed;
    if (data == nullptr) return ERROR_SUCCESS;
    if (room < needed) return ERROR_MORE_DATA;
    std::memcpy(data, source, needed);
    return ERROR_SUCCESS;
}

template <class Value>
Value FailWithError(DWORD error, Value failure) {
    SetLastError(error);
    return failure;
}

}  // namespace

int CountOpenRegistryKeys() noexcept {
    const std::lock_guard<std::mutex> lock(TheOpenKeys().mutex);
    return static_cast<int>(TheOpenKeys().paths.size());
}

}  // namespace platform

using platform::FailWithError;
using platform::PlatformCall;
using platform::TheMachine;

void StandInGetSystemTimeAsFileTime(LPFILETIME time) {
    ULARGE_INTEGER now;
    now.QuadPart = static_cast<ULONGLONG>(platform::CalendarNow());
    *time = {now.LowPart, now.HighPart};
}

DWORD StandInGetTickCount() {
    constexpr std::int64_t kNanosecondsPerMillisecond = 1'000'000;
    return static_cast<DWORD>(platform::ClockNow() / kNanosecondsPerMillisecond);
}

LSTATUS StandInRegOpenKeyExA(HKEY key, LPCSTR subKey, DWORD, REGSAM access, PHKEY result) {
    PlatformCall call("RegOpenKeyExA", ERROR_ACCESS_DENIED);
    if (call.Faulted()) return static_cast<LSTATUS>(call.error());
    return platform::OpenKey(key, subKey, access, result);
}

LSTATUS StandInRegQueryValueExA(HKEY key, LPCSTR name, LPDWORD, LPDWORD type, LPBYTE data, LPDWORD size) {
    PlatformCall call("RegQueryValueExA", ERROR_FILE_NOT_FOUND);
    if (call.Faulted()) return static_cast<LSTATUS>(call.error());
    return platform::QueryValue(key, name, type, data, size);
}

LSTATUS StandInRegCloseKey(HKEY key) {
    PlatformCall call("RegCloseKey", ERROR_INVALID_HANDLE);
    if (call.Faulted()) return static_cast<LSTATUS>(call.error());
    auto* const path = reinterpret_cast<std::string*>(key);
    const std::lock_guard<std::mutex> lock(platform::TheOpenKeys().mutex);
    if (platform::TheOpenKeys().paths.erase(path) == 0) return ERROR_INVALID_HANDLE;
    delete path;
    return ERROR_SUCCESS;
}

BOOLEAN StandInGetUserNameExW(int, LPWSTR name, PULONG size) {
    PlatformCall call("GetUserNameExW", ERROR_NONE_MAPPED);
    if (call.Fails()) return FALSE;
    const winsock_host::WideString user = winsock_host::Widen(TheMachine()->userName);
    if (user.empty()) return FailWithError<BOOLEAN>(ERROR_NONE_MAPPED, FALSE);
    if (name == nullptr || *size <= user.size()) {
        *size = static_cast<ULONG>(user.size() + 1);
        return FailWithError<BOOLEAN>(ERROR_MORE_DATA, FALSE);
    }
    std::copy_n(user.c_str(), user.size() + 1, name);
    *size = static_cast<ULONG>(user.size());
    return TRUE;
}

HRESULT StandInSHGetFolderPathA(HWND owner, int folder, HANDLE token, DWORD flags, LPSTR path) {
    PlatformCall call("SHGetFolderPathA", ERROR_FILE_NOT_FOUND);
    path[0] = 0;
    if (call.Faulted()) return HRESULT_FROM_WIN32(call.error());
    if ((folder & ~CSIDL_FLAG_MASK) != CSIDL_COMMON_APPDATA)
        return SHGetFolderPathA(owner, folder, token, flags, path);
    const std::string directory = TheMachine()->commonAppData;
    if (directory.empty() || directory.size() >= MAX_PATH) return E_FAIL;
    CreateDirectoryA(directory.c_str(), nullptr);
    std::copy_n(directory.c_str(), directory.size() + 1, path);
    return S_OK;
}

DWORD StandInGetModuleFileNameA(HMODULE module, LPSTR name, DWORD size) {
    PlatformCall call("GetModuleFileNameA", ERROR_INVALID_PARAMETER);
    if (call.Fails()) return 0;
    const std::string image = TheMachine()->processImage;
    if (module != nullptr || image.empty()) return GetModuleFileNameA(module, name, size);
    if (size == 0) return 0;
    const auto copied = static_cast<DWORD>(std::min<std::size_t>(image.size(), size - 1));
    std::memcpy(name, image.data(), copied);
    name[copied] = 0;
    if (copied < image.size()) return FailWithError<DWORD>(ERROR_INSUFFICIENT_BUFFER, size);
    return copied;
}

HMODULE StandInGetModuleHandleA(LPCSTR name) {
    PlatformCall call("GetModuleHandleA", ERROR_MOD_NOT_FOUND);
    if (call.Fails()) return nullptr;
    if (name != nullptr) {
        const std::string asked = std::strchr(name, '.') == nullptr ? std::string(name) + ".dll" : name;
        for (const std::string& extra : TheMachine()->extraModules) {
            if (lstrcmpiA(extra.c_str(), asked.c_str()) == 0) return GetModuleHandleA(nullptr);
        }
    }
    return GetModuleHandleA(name);
}
