// The scripted parts of the system that this target does in its own way: the registry, the user, the folders,
// the process image, and the readings of the clock. The routes of the modules under test lead here, and to
// the stand-in's own scripted parts. Arguments, results and last errors are those of the Windows functions
// that they are named for.
#pragma once

#include <windows.h>

void StandInGetSystemTimeAsFileTime(LPFILETIME time);
DWORD StandInGetTickCount();

LSTATUS StandInRegOpenKeyExA(HKEY key, LPCSTR subKey, DWORD options, REGSAM access, PHKEY result);
LSTATUS StandInRegQueryValueExA(HKEY key, LPCSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data,
                                LPDWORD size);
LSTATUS StandInRegCloseKey(HKEY key);
BOOLEAN StandInGetUserNameExW(int format, LPWSTR name, PULONG size);
HRESULT StandInSHGetFolderPathA(HWND owner, int folder, HANDLE token, DWORD flags, LPSTR path);
DWORD StandInGetModuleFileNameA(HMODULE module, LPSTR name, DWORD size);
HMODULE StandInGetModuleHandleA(LPCSTR name);

namespace platform {

/// Registry keys that are open.
int CountOpenRegistryKeys() noexcept;

}  // namespace platform
