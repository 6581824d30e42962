// The host library routes its process as soon as it is loaded: a test program imports it, an unmodified
// program has it loaded before its first own instruction.
#include <windows.h>

#include "platform/windows/routing.h"

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) platform::RouteProcess(instance);
    return TRUE;
}
