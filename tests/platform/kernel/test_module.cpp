// A module for the loader's tests: notes why its entry point was called, and can refuse to start.
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

std::string Notes;
HANDLE ThreadToWaitFor = nullptr;
CRITICAL_SECTION* SectionToEnter = nullptr;
HANDLE EventToSet = nullptr;
const std::atomic<int>* CounterToWatch = nullptr;

/// What a module does at process end: it takes its locks, waits for its threads, and relies on all being
/// still.
void CleanUp() {
    if (SectionToEnter != nullptr) EnterCriticalSection(SectionToEnter);
    if (ThreadToWaitFor != nullptr && WaitForSingleObject(ThreadToWaitFor, 5000) == WAIT_OBJECT_0)
        Notes += "waited ";
    if (CounterToWatch != nullptr) {
        const int before = CounterToWatch->load();
        SetEvent(EventToSet);
        // Whoever still runs has the time to show it.
        const ULONGLONG begin = GetTickCount64();
        while (GetTickCount64() - begin < 50) {
        }
        Notes += CounterToWatch->load() == before ? "still " : "moving ";
    }
    std::printf("%s", Notes.c_str());
    std::fflush(stdout);
}

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID reserved) {
    static const char* const kNames[] = {"detach", "attach", "thread-attach", "thread-detach"};
    Notes += std::string(kNames[reason]) + (reserved != nullptr ? "! " : " ");
    if (reason == DLL_PROCESS_DETACH && reserved != nullptr) CleanUp();
    if (reason == DLL_PROCESS_ATTACH && std::getenv("QX_TEST_MODULE_REFUSES") != nullptr) return FALSE;
    return module != nullptr;
}

extern "C" const char* TestModuleNotes() {
    return Notes.c_str();
}

extern "C" void TestModuleUseAtExit(HANDLE thread, CRITICAL_SECTION* section) {
    ThreadToWaitFor = thread;
    SectionToEnter = section;
}

extern "C" void TestModuleWatchAtExit(HANDLE event, const std::atomic<int>* counter) {
    EventToSet = event;
    CounterToWatch = counter;
}
