// The stand-in's scripted parts of Windows, carried beside Windows' own under names of their own: clock,
// debug output, top-level windows, certificates. The routes of the modules under test lead here. Arguments,
// results and last errors are those of the Windows functions that they are named for.
#pragma once

#include <windows.h>

#include <wincrypt.h>

void StandInGetSystemTimeAsFileTime(LPFILETIME time);
DWORD StandInGetTickCount();
void StandInOutputDebugStringA(LPCSTR text);

BOOL StandInEnumWindows(WNDENUMPROC procedure, LPARAM parameter);
DWORD StandInGetWindowThreadProcessId(HWND window, LPDWORD processId);
HWND StandInGetAncestor(HWND window, UINT flags);
LRESULT StandInSendMessageTimeoutA(HWND window, UINT message, WPARAM wParam, LPARAM lParam, UINT flags,
                                   UINT timeout, PDWORD_PTR result);
BOOL StandInIsWindow(HWND window);

BOOL StandInCryptQueryObject(DWORD objectType, const void* object, DWORD contentFlags, DWORD formatFlags,
                             DWORD flags, DWORD* encoding, DWORD* contentType, DWORD* formatType,
                             HCERTSTORE* store, HCRYPTMSG* message, const void** context);
BOOL StandInCryptMsgGetParam(HCRYPTMSG message, DWORD parameter, DWORD index, void* data, DWORD* size);
BOOL StandInCryptMsgClose(HCRYPTMSG message);
PCCERT_CONTEXT StandInCertFindCertificateInStore(HCERTSTORE store, DWORD encoding, DWORD flags,
                                                 DWORD findType, const void* findParameter,
                                                 PCCERT_CONTEXT previous);
DWORD StandInCertGetNameStringA(PCCERT_CONTEXT certificate, DWORD type, DWORD flags, void* parameter,
                                LPSTR name, DWORD size);
BOOL StandInCertFreeCertificateContext(PCCERT_CONTEXT certificate);
BOOL StandInCertCloseStore(HCERTSTORE store, DWORD flags);

// scripted_system.cpp: the registry, the user and the folders of the machine.
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
