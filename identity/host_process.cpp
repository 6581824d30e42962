// See host_process.h.
#include "identity/host_process.h"

#include <winsock2.h>

#include <windows.h>

#include <security.h>

#include <cstddef>
#include <cstring>

#include "identity/process_identity.h"
#include "messages/text_cut.h"
#include "provider/process_state.h"

char ProcessImagePath[kImagePathSize] = "";
char ProcessUserName[kUserNameSize] = "<Unknown>";

namespace {

constexpr ULONG kWideUserNameSize = 273;
constexpr char kUnknown[] = "<Unknown>";

/// A text in a buffer that fits where it goes; "<Unknown>" when there is none.
template <std::size_t kSize>
void MakeUnknownUnless(bool known, char (&text)[kSize]) {
    static_assert(kSize >= sizeof(kUnknown), "there is room for the text that stands for none");
    if (!known) std::memcpy(text, kUnknown, sizeof(kUnknown));
    text[kSize - 1] = 0;  // a path that was cut comes without an end on old systems
}

void CaptureImagePath() {
    char path[kImagePathSize] = {};
    const DWORD length = GetModuleFileNameA(nullptr, path, sizeof(path));
    MakeUnknownUnless(length != 0, path);
    if (length == sizeof(path)) path[WithoutPartialCharacter(path)] = 0;
    const Locker lock(IdentityLock);
    std::memcpy(ProcessImagePath, path, sizeof(path));
}

void CaptureUserName() {
    WCHAR wide[kWideUserNameSize] = {};
    ULONG size = kWideUserNameSize;
    char name[kUserNameSize] = {};
    const bool known = GetUserNameExW(NameSamCompatible, wide, &size) &&
                       WideCharToMultiByte(CP_UTF8, 0, wide, -1, name, sizeof(name), nullptr, nullptr) != 0;
    MakeUnknownUnless(known, name);
    const Locker lock(IdentityLock);
    std::memcpy(ProcessUserName, name, sizeof(name));
}

bool IsModuleLoaded(const char* name) {
    return GetModuleHandleA(name) != nullptr;
}

}  // namespace

void CaptureHostProcess() {
    CaptureImagePath();
    CurrentProcessId = GetCurrentProcessId();
    StartProcessInfoCollection();
    if (IsModuleLoaded("dispatcherqx.dll") ||
        (IsModuleLoaded("qx.dll") && !IsModuleLoaded("qxwatchdog.dll"))) {
        OwnProcess = true;
    }
    CaptureUserName();
}
