// Well-known folders.
#pragma once

#include <windows.h>

#define CSIDL_COMMON_APPDATA 0x0023
#define CSIDL_FLAG_MASK 0xFF00
#define SHGFP_TYPE_CURRENT 0

extern "C" {
/// `path` has room for MAX_PATH characters.
HRESULT WINAPI SHGetFolderPathA(HWND owner, int folder, HANDLE token, DWORD flags, LPSTR path);
}
