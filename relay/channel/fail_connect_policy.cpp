// Whether connections are refused while the analyzer can't be reached: a setting of the machine, read from
// the registry and kept for ten minutes. Any thread, no lock: two threads that find it stale both read the
// same.
#include "relay/channel/fail_connect_policy.h"

#include <winsock2.h>

#include <windows.h>

#include <cstdint>

#include "base/atomic.h"
#include "base/calendar.h"
#include "provider/contexts/socket_context.h"

namespace {

constexpr std::int64_t kPolicySeconds = 600;

struct {
    Atomic<DWORD> Value{0};
    Atomic<std::int64_t> ReadAt{0};  // seconds; 0: never
} FailConnectPolicy;

DWORD ReadPolicy() {
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Vantrex Software\\Talvessa QX", 0,
                      KEY_QUERY_VALUE | KEY_WOW64_64KEY, &key) != ERROR_SUCCESS) {
        return 0;
    }
    DWORD value = 0;
    DWORD size = sizeof value;
    const LONG result = RegQueryValueExA(key, "StopActivityOnFailConnect", nullptr, nullptr,
                                         reinterpret_cast<BYTE*>(&value), &size);
    RegCloseKey(key);
    return result == ERROR_SUCCESS && size == sizeof value ? value : 0;
}

DWORD CurrentPolicy() {
    const std::int64_t now = CalendarSeconds();
    const std::int64_t readAt = FailConnectPolicy.ReadAt.Acquire();
    // A clock that was set back doesn't make the value stale.
    if (readAt != 0 && now - readAt <= kPolicySeconds) return FailConnectPolicy.Value;
    const DWORD policy = ReadPolicy();
    FailConnectPolicy.Value = policy;
    FailConnectPolicy.ReadAt.Publish(now);
    return policy;
}

}  // namespace

bool ApplyFailConnectPolicy(SocketContext* context) {
    if (CurrentPolicy() == 0) return false;
    context->Blocked = TRUE;
    return true;
}
