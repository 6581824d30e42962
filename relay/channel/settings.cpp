// The two registry values of the product's key, and the port file of four bytes. The registry's port only
// says "the usual one" or "look into the file".
#include "relay/channel/settings.h"

#include <winsock2.h>

#include <shlobj.h>
#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include "base/atomic.h"
#include "base/calendar.h"

namespace {

constexpr char kProductKey[] = "SOFTWARE\\Vantrex Software\\Talvessa QX";
constexpr char kPortFile[] = "/VantrexSoftware/Talvessa/p_info";
constexpr std::size_t kPathSize = 772;
constexpr DWORD kUsualPort = 48191;

/// A value that is read again when it is older than some seconds.
class CachedValue {
  public:
    explicit constexpr CachedValue(DWORD initial, std::int64_t seconds)
        : value_(initial), seconds_(seconds) {}

    /// `read(the value so far)` gives the new one.
    template <class Read>
    DWORD Get(Read read) {
        const std::int64_t now = CalendarSeconds();
        const std::int64_t readAt = readAt_.Acquire();
        // A clock that was set back doesn't make the value stale.
        if (readAt != 0 && now - readAt <= seconds_) return value_;
        const DWORD value = read(value_);
        value_ = value;
        readAt_.Publish(now);
        return value;
    }

  private:
    Atomic<DWORD> value_;
    Atomic<std::int64_t> readAt_;  // 0: never
    const std::int64_t seconds_;
};

CachedValue Port(kUsualPort, 300);
CachedValue StopOnFailConnect(0, 600);

/// A number under the product's key; 0 when there is none.
DWORD ReadProductValue(const char* name, REGSAM access) {
    HKEY key = nullptr;
    // The 64-bit view, which the product's service writes.
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, kProductKey, 0, access | KEY_WOW64_64KEY, &key) != ERROR_SUCCESS)
        return 0;
    DWORD value = 0;
    DWORD size = sizeof(value);
    const LONG status =
        RegQueryValueExA(key, name, nullptr, nullptr, reinterpret_cast<LPBYTE>(&value), &size);
    RegCloseKey(key);
    return status == ERROR_SUCCESS && size == sizeof(value) ? value : 0;
}

/// The number in the port file; 0 when it can't be read, or when there is no folder to look in.
DWORD ReadPortFile() {
    char path[kPathSize] = {};
    if (SHGetFolderPathA(nullptr, CSIDL_COMMON_APPDATA, nullptr, 0, path) != S_OK) return 0;
    const std::size_t length = std::strlen(path);
    if (length + sizeof(kPortFile) > sizeof(path)) return 0;
    std::memcpy(path + length, kPortFile, sizeof(kPortFile));

    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path, "rb"), std::fclose);
    unsigned char bytes[4];
    if (!file || std::fread(bytes, sizeof(bytes), 1, file.get()) != 1) return 0;
    return bytes[0] | static_cast<DWORD>(bytes[1]) << 8 | static_cast<DWORD>(bytes[2]) << 16 |
           static_cast<DWORD>(bytes[3]) << 24;
}

DWORD ReadPort(DWORD portSoFar) {
    // The value is asked for with full access: a process that may not have that goes by the file alone.
    if (ReadProductValue("Port", KEY_ALL_ACCESS) == kUsualPort) return portSoFar;
    const DWORD port = ReadPortFile();
    return port > 1024 && port < 65000 ? port : portSoFar;
}

}  // namespace

unsigned int GetRelayPort() {
    return Port.Get(ReadPort);
}

bool StopsActivityOnFailConnect() {
    return StopOnFailConnect.Get(
               [](DWORD) { return ReadProductValue("StopActivityOnFailConnect", KEY_QUERY_VALUE); }) != 0;
}
