// A module for the loader's tests: notes why its entry point was called, and can refuse to start.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

std::string Notes;
HANDLE ThreadToWaitFor = nullptr;
CRITICAL_SECTION* SectionToEnter = nullptr;

/// What a module does at process end: it takes its locks and waits for its threads.
void CleanUp() {
    if (SectionToEnter != nullptr) EnterCriticalSection(SectionToEnter);
    if (ThreadToWaitFor != nullptr && WaitForSingleObject(ThreadToWaitFor, 5000) == WAIT_OBJECT_0)
        Notes += "waited ";
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
