// Ends with a module loaded and a thread that never ends by itself, holding a lock if the second argument is
// "lock". The module waits for that thread, and takes that lock, when the process ends.
#include <windows.h>

#include <cstring>

namespace {

CRITICAL_SECTION Section;
HANDLE Inside;

DWORD WINAPI HoldForEver(LPVOID) {
    EnterCriticalSection(&Section);
    SetEvent(Inside);
    Sleep(INFINITE);
    return 0;
}

}  // namespace

int main(int count, char** arguments) {
    HMODULE module = count == 3 ? LoadLibraryA(arguments[1]) : nullptr;
    if (module == nullptr) return 90;
    InitializeCriticalSection(&Section);
    Inside = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    HANDLE thread = CreateThread(nullptr, 0, HoldForEver, nullptr, 0, nullptr);
    WaitForSingleObject(Inside, INFINITE);
    const auto useAtExit = reinterpret_cast<void (*)(HANDLE, CRITICAL_SECTION*)>(
        reinterpret_cast<void*>(GetProcAddress(module, "TestModuleUseAtExit")));
    useAtExit(thread, std::strcmp(arguments[2], "lock") == 0 ? &Section : nullptr);
    return 17;
}
