// Ends with a module loaded and a thread that never ends by itself. What they do is the second argument.
//   plain: the thread holds a lock and sleeps; the module waits for the thread at process end
//   lock: the module takes that lock as well
//   busy: a thread of the language's library counts; the module looks whether it goes on
//   waiting: that thread waits for an event before it counts; the module sets the event
//   blocked: a thread of CreateThread counts; every signal is blocked where it is made
#include <windows.h>

#include <atomic>
#include <string>
#include <thread>

#ifndef _WIN32
#include <signal.h>
#endif

namespace {

CRITICAL_SECTION Section;
HANDLE Inside;
HANDLE Wake;
std::atomic<int> Counter{0};

DWORD WINAPI HoldForEver(LPVOID) {
    EnterCriticalSection(&Section);
    SetEvent(Inside);
    Sleep(INFINITE);
    return 0;
}

/// Counts for ever, in and out of the system's calls.
DWORD WINAPI Count(LPVOID) {
    const HANDLE heap = HeapCreate(0, 0, 0);
    for (;;) {
        HeapFree(heap, 0, HeapAlloc(heap, 0, 100));
        if (Counter++ == 0) SetEvent(Inside);
    }
}

void WaitAndCount() {
    SetEvent(Inside);
    WaitForSingleObject(Wake, INFINITE);
    Count(nullptr);
}

/// For the threads that are made from now on.
void BlockSignals() {
#ifndef _WIN32
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
#endif
}

template <class Function>
Function Find(HMODULE module, const char* name) {
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

}  // namespace

int main(int count, char** arguments) {
    HMODULE module = count == 3 ? LoadLibraryA(arguments[1]) : nullptr;
    if (module == nullptr) return 90;
    const std::string how = arguments[2];
    InitializeCriticalSection(&Section);
    Inside = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    Wake = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    if (how == "plain" || how == "lock") {
        const HANDLE thread = CreateThread(nullptr, 0, HoldForEver, nullptr, 0, nullptr);
        Find<void (*)(HANDLE, CRITICAL_SECTION*)>(module, "TestModuleUseAtExit")(
            thread, how == "lock" ? &Section : nullptr);
    } else {
        Find<void (*)(HANDLE, const std::atomic<int>*)>(module, "TestModuleWatchAtExit")(Wake, &Counter);
        if (how == "blocked") {
            BlockSignals();
            CreateThread(nullptr, 0, Count, nullptr, 0, nullptr);
        } else if (how == "busy") {
            std::thread([] { Count(nullptr); }).detach();
        } else {
            std::thread(WaitAndCount).detach();
        }
    }
    WaitForSingleObject(Inside, INFINITE);
    return 17;
}
