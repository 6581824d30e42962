// The user who runs the process, and the well-known folders.
#include <security.h>
#include <shlobj.h>
#include <sys/stat.h>
#include <windows.h>

#include <algorithm>
#include <string>

#include "platform/kernel/fault_points.h"
#include "platform/kernel/last_error.h"
#include "platform/kernel/text.h"
#include "platform/system/machine.h"

using platform::Fail;
using platform::PlatformCall;

BOOLEAN GetUserNameExW(EXTENDED_NAME_FORMAT format, LPWSTR name, PULONG size) {
    PlatformCall call("GetUserNameExW", ERROR_NONE_MAPPED);
    if (call.Fails()) return FALSE;
    const std::u16string user = platform::ToWide(platform::TheMachine()->userName);
    if (format != NameSamCompatible || user.empty()) return Fail<BOOLEAN>(ERROR_NONE_MAPPED, FALSE);
    const ULONG room = *size;
    if (name == nullptr || room <= user.size()) {
        *size = static_cast<ULONG>(user.size() + 1);
        return Fail<BOOLEAN>(ERROR_MORE_DATA, FALSE);
    }
    std::copy_n(user.c_str(), user.size() + 1, name);
    *size = static_cast<ULONG>(user.size());
    return TRUE;
}

HRESULT SHGetFolderPathA(HWND, int folder, HANDLE, DWORD, LPSTR path) {
    PlatformCall call("SHGetFolderPathA", ERROR_FILE_NOT_FOUND);
    path[0] = 0;
    if (call.Faulted()) return HRESULT_FROM_WIN32(call.error());
    if ((folder & ~CSIDL_FLAG_MASK) != CSIDL_COMMON_APPDATA) return E_INVALIDARG;
    const std::string directory = platform::TheMachine()->commonAppData;
    if (directory.empty() || directory.size() >= MAX_PATH) return E_FAIL;
    // The folder is there on every machine; here it is made at first use.
    mkdir(directory.c_str(), 0700);
    std::copy_n(directory.c_str(), directory.size() + 1, path);
    return S_OK;
}
