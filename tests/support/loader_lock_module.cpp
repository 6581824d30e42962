// A module that calls back while it is unloaded, with the loader's lock held.
#include <windows.h>

namespace {

void (*Act)(void*) = nullptr;
void* Argument = nullptr;

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_DETACH && Act != nullptr) Act(Argument);
    return TRUE;
}

extern "C" void CallWhenUnloaded(void (*act)(void*), void* argument) {
    Act = act;
    Argument = argument;
}
