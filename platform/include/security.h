// Names of the user who runs the process.
#pragma once

#include <windows.h>

typedef enum {
    NameUnknown = 0,
    NameFullyQualifiedDN = 1,
    NameSamCompatible = 2,
    NameDisplay = 3,
} EXTENDED_NAME_FORMAT,
    *PEXTENDED_NAME_FORMAT;

extern "C" {
BOOLEAN WINAPI GetUserNameExW(EXTENDED_NAME_FORMAT format, LPWSTR name, PULONG size);
}
