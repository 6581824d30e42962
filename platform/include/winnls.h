// Code pages and text conversion. The ANSI code page of the native target is UTF-8.
#pragma once

#include <windef.h>

#define CP_ACP 0
#define CP_UTF8 65001
#define MB_ERR_INVALID_CHARS 0x00000008
#define WC_ERR_INVALID_CHARS 0x00000080

extern "C" {
int WINAPI MultiByteToWideChar(UINT codePage, DWORD flags, LPCCH text, int textSize, LPWSTR wide,
                               int wideSize);
int WINAPI WideCharToMultiByte(UINT codePage, DWORD flags, LPCWCH wide, int wideSize, LPSTR text,
                               int textSize, LPCCH defaultCharacter, LPBOOL usedDefault);
}
