// Where the product's service leaves the analyzer's port: a registry value that only says "the usual one" or
// "look into the file", and a file of four bytes.
#include "relay/channel/relay_port.h"

#include <winsock2.h>

#include <shlobj.h>
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <memory>

#include "base/atomic.h"
#include "base/calendar.h"

namespace {

constexpr unsigned int kUsualPort = 48191;
constexpr long long kCacheSeconds = 300;
constexpr char kRegistryKey[] = "SOFTWARE\\Vantrex Software\\Talvessa QX";
constexpr char kPortFile[] = "/VantrexSoftware/Talvessa/p_info";
constexpr std::size_t kPathSize = 772;

Atomic<unsigned int> CachedPort{kUsualPort};
Atomic<long long> LastReadTime{0};

/// The configured port, or 0 when there is none or it is out of range.
unsigned int ReadRegistryPort(HKEY key) {
    DWORD value = 0;
    DWORD size = sizeof(value);
    DWORD type = 0;
    const LONG status =
        RegQueryValueExA(key, "Port", nullptr, &type, reinterpret_cast<LPBYTE>(&value), &size);
    if (status != ERROR_SUCCESS || size != sizeof(value)) return 0;
    return value >= 1024 && value <= 65000 ? static_cast<unsigned int>(value) : 0;
}

/// Whether the registry says that the usual port is in use. The key is opened with full access in the 64-bit
/// view; a process that may not do that goes by the file alone.
bool RegistrySaysUsualPort() {
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, kRegistryKey, 0, KEY_ALL_ACCESS | KEY_WOW64_64KEY, &key) !=
        ERROR_SUCCESS) {
        return false;
    }
    const unsigned int port = ReadRegistryPort(key);
    RegCloseKey(key);
    return port == kUsualPort;
}

/// The number in the port file; 0 when it can't be read, or when there is no folder to look in.
unsigned int ReadPortFile() {
    char path[kPathSize] = {};
    if (SHGetFolderPathA(nullptr, CSIDL_COMMON_APPDATA, nullptr, 0, path) != S_OK) return 0;
    const std::size_t length = std::strlen(path);
    if (length + sizeof(kPortFile) > sizeof(path)) return 0;
    std::memcpy(path + length, kPortFile, sizeof(kPortFile));

    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path, "rb"), std::fclose);
    unsigned char bytes[4];
    if (!file || std::fread(bytes, sizeof(bytes), 1, file.get()) != 1) return 0;
    return bytes[0] | static_cast<unsigned int>(bytes[1]) << 8 | static_cast<unsigned int>(bytes[2]) << 16 |
           static_cast<unsigned int>(bytes[3]) << 24;
}

}  // namespace

unsigned int GetRelayPort() {
    const long long now = CalendarSeconds();
    const long long lastRead = LastReadTime;
    // A clock that was set back keeps the cached value until the recorded time lies in the past again.
    if (lastRead != 0 && now - lastRead <= kCacheSeconds) return CachedPort;
    LastReadTime = now;
    if (RegistrySaysUsualPort()) return CachedPort;
    const unsigned int port = ReadPortFile();
    if (port > 1024 && port < 65000) CachedPort = port;
    return CachedPort;
}
