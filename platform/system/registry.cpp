// The registry, read only, out of the machine.
#include <windows.h>

#include <cstring>
#include <new>
#include <string>

#include "platform/kernel/fault_points.h"
#include "platform/kernel/handles.h"
#include "platform/kernel/text.h"
#include "platform/system/machine.h"

namespace platform {

namespace {

constexpr REGSAM kWriteRights =
    KEY_SET_VALUE | KEY_CREATE_SUB_KEY | KEY_CREATE_LINK | DELETE | WRITE_DAC | WRITE_OWNER;

class RegistryKey final : public Object {
  public:
    explicit RegistryKey(std::string path) : Object(ObjectKind::kRegistryKey), path_(std::move(path)) {}
    const std::string& path() const { return path_; }

  private:
    const std::string path_;
};

/// The path of an open or predefined key; empty when it is neither.
std::string PathOfKey(HKEY key) {
    if (key == HKEY_LOCAL_MACHINE) return "HKEY_LOCAL_MACHINE";
    if (key == HKEY_CURRENT_USER) return "HKEY_CURRENT_USER";
    if (key == HKEY_CLASSES_ROOT) return "HKEY_CLASSES_ROOT";
    if (key == HKEY_USERS) return "HKEY_USERS";
    const auto object =
        ReferenceHandleAs<RegistryKey>(reinterpret_cast<HANDLE>(key), ObjectKind::kRegistryKey);
    return object != nullptr ? object->path() : "";
}

/// A key exists when it is in the machine, or when one below it is.
bool KeyExists(const Machine& machine, const std::string& path) {
    if (machine.registry.count(path) != 0) return true;
    const auto below = machine.registry.lower_bound(path + "\\");
    return below != machine.registry.end() &&
           EqualsIgnoringCase(below->first.substr(0, path.size() + 1), path + "\\");
}

LSTATUS OpenKey(HKEY key, const char* subKey, REGSAM access, HKEY* result) {
    std::string path = PathOfKey(key);
    if (path.empty()) return ERROR_INVALID_HANDLE;
    if (result == nullptr) return ERROR_INVALID_PARAMETER;
    const bool hasSubKey = subKey != nullptr && *subKey != 0;
    if (hasSubKey) path += std::string("\\") + subKey;
    const std::shared_ptr<const Machine> machine = TheMachine();
    if (hasSubKey && !KeyExists(*machine, path)) return ERROR_FILE_NOT_FOUND;
    if (machine->denyRegistryWrite && (access & kWriteRights) != 0) return ERROR_ACCESS_DENIED;
    const HANDLE handle = OpenHandle(std::make_shared<RegistryKey>(path));
    if (handle == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    *result = reinterpret_cast<HKEY>(handle);
    return ERROR_SUCCESS;
}

LSTATUS QueryValue(HKEY key, const char* name, DWORD* type, BYTE* data, DWORD* size) {
    const std::string path = PathOfKey(key);
    if (path.empty()) return ERROR_INVALID_HANDLE;
    if (data != nullptr && size == nullptr) return ERROR_INVALID_PARAMETER;
    const std::shared_ptr<const Machine> machine = TheMachine();
    const auto values = machine->registry.find(path);
    if (values == machine->registry.end()) return ERROR_FILE_NOT_FOUND;
    const auto found = values->second.find(name != nullptr ? name : "");
    if (found == values->second.end()) return ERROR_FILE_NOT_FOUND;
    const RegistryValue& value = found->second;
    const void* source = value.isNumber ? static_cast<const void*>(&value.number) : value.text.c_str();
    const auto needed = static_cast<DWORD>(value.isNumber ? sizeof(value.number) : value.text.size() + 1);
    if (type != nullptr) *type = value.isNumber ? REG_DWORD : REG_SZ;
    if (size == nullptr) return ERROR_SUCCESS;
    const DWORD room = *size;
    *size = needed;
    if (data == nullptr) return ERROR_SUCCESS;
    if (room < needed) return ERROR_MORE_DATA;
    std::memcpy(data, source, needed);
    return ERROR_SUCCESS;
}

}  // namespace

}  // namespace platform

using platform::PlatformCall;

LSTATUS RegOpenKeyExA(HKEY key, LPCSTR subKey, DWORD, REGSAM access, PHKEY result) {
    PlatformCall call("RegOpenKeyExA", ERROR_ACCESS_DENIED);
    if (call.Faulted()) return static_cast<LSTATUS>(call.error());
    try {
        return platform::OpenKey(key, subKey, access, result);
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
}

LSTATUS RegQueryValueExA(HKEY key, LPCSTR name, LPDWORD, LPDWORD type, LPBYTE data, LPDWORD size) {
    PlatformCall call("RegQueryValueExA", ERROR_FILE_NOT_FOUND);
    if (call.Faulted()) return static_cast<LSTATUS>(call.error());
    try {
        return platform::QueryValue(key, name, type, data, size);
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
}

LSTATUS RegCloseKey(HKEY key) {
    PlatformCall call("RegCloseKey", ERROR_INVALID_HANDLE);
    if (call.Faulted()) return static_cast<LSTATUS>(call.error());
    if (platform::PathOfKey(key).empty()) return ERROR_INVALID_HANDLE;
    // Closing a predefined key does nothing.
    platform::CloseOpenHandle(reinterpret_cast<HANDLE>(key));
    return ERROR_SUCCESS;
}
