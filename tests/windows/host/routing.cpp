// Finding and changing the import slots of modules.
#include "tests/windows/host/routing.h"

#include <tlhelp32.h>
#include <winternl.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace platform {

namespace {

struct ProcessRoutes {
    HMODULE thisLibrary = nullptr;
    bool systemModules = false;
    std::vector<Route> winsock;
    std::vector<Route> programKnobs;
    std::vector<Route> moduleKnobs;
};

// Never destroyed: modules are loaded and detached until the very end.
ProcessRoutes& TheRoutes() {
    static ProcessRoutes& routes = *new ProcessRoutes;
    return routes;
}

std::string FileNameOf(HMODULE module) {
    char path[MAX_PATH] = {};
    GetModuleFileNameA(module, path, sizeof(path) - 1);
    const char* slash = std::strrchr(path, '\\');
    return slash != nullptr ? slash + 1 : path;
}

bool IsSystems(HMODULE module) {
    char folder[MAX_PATH] = {};
    char path[MAX_PATH] = {};
    const UINT length = GetWindowsDirectoryA(folder, sizeof(folder));
    GetModuleFileNameA(module, path, sizeof(path) - 1);
    path[length] = 0;
    return lstrcmpiA(path, folder) == 0;
}

// The toolchain's runtime library, when the program has not linked it in.
constexpr char kRuntimeThreads[] = "libwinpthread-1.dll";

bool StaysReal(HMODULE module) {
    if (module == TheRoutes().thisLibrary) return true;
    const std::string name = FileNameOf(module);
    for (const char* real : {"ws2_32.dll", "mswsock.dll", "qxlower.dll", "libgcc_s_dw2-1.dll",
                             "libstdc++-6.dll", kRuntimeThreads}) {
        if (lstrcmpiA(name.c_str(), real) == 0) return true;
    }
    return false;
}

void RouteByKind(HMODULE module) {
    const bool isSystems = IsSystems(module);
    if (StaysReal(module) || (isSystems && !TheRoutes().systemModules)) return;
    RouteModule(module, TheRoutes().winsock);
    if (isSystems) return;
    const bool isProgram = module == GetModuleHandleA(nullptr);
    RouteModule(module, isProgram ? TheRoutes().programKnobs : TheRoutes().moduleKnobs);
}

template <class Visitor>
void VisitModules(Visitor visit) {
    const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPMODULE, GetCurrentProcessId());
    if (snapshot == INVALID_HANDLE_VALUE) return;
    MODULEENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL more = Module32First(snapshot, &entry); more; more = Module32Next(snapshot, &entry))
        visit(entry.hModule);
    CloseHandle(snapshot);
}

struct LoadNotice {
    ULONG flags;
    const UNICODE_STRING* fullName;
    const UNICODE_STRING* baseName;
    void* module;
    ULONG size;
};

constexpr ULONG kLoaded = 1;

void ResolveAll() {
    ResolveRoutes(&TheRoutes().winsock);
    ResolveRoutes(&TheRoutes().programKnobs);
    ResolveRoutes(&TheRoutes().moduleKnobs);
}

// The module's imports are in place by now, and with them libraries that nobody had loaded before. The notice
// comes with the loader's lock held, one at a time.
void CALLBACK OnModuleLoaded(ULONG reason, const LoadNotice* notice, void*) {
    if (reason != kLoaded) return;
    ResolveAll();
    RouteByKind(static_cast<HMODULE>(notice->module));
}

void WatchLoads() {
    using Callback = void(CALLBACK*)(ULONG, const LoadNotice*, void*);
    using Register = LONG(NTAPI*)(ULONG, Callback, void*, void**);
    const auto registerCallback = reinterpret_cast<Register>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("ntdll.dll"), "LdrRegisterDllNotification")));
    static void* cookie;
    if (registerCallback != nullptr) registerCallback(0, OnModuleLoaded, nullptr, &cookie);
}

}  // namespace

void ResolveRoutes(std::vector<Route>* routes) {
    for (Route& route : *routes) {
        if (route.real != nullptr) continue;
        // It stays where it is, even when the last module under test that uses it goes.
        HMODULE library = nullptr;
        if (!GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_PIN, route.library, &library)) continue;
        route.real = reinterpret_cast<void*>(GetProcAddress(library, route.function));
    }
}

int RouteModule(HMODULE module, const std::vector<Route>& routes) {
    char* const base = reinterpret_cast<char*>(module);
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    if (dos->e_magic != IMAGE_DOS_SIGNATURE) return 0;
    const auto* headers = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& imports = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (imports.VirtualAddress == 0) return 0;
    int changed = 0;
    const auto* library = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress);
    for (; library->Name != 0; ++library) {
        for (auto* slot = reinterpret_cast<void**>(base + library->FirstThunk); *slot != nullptr; ++slot) {
            for (const Route& route : routes) {
                if (route.real == nullptr || *slot != route.real) continue;
                DWORD protection = 0;
                VirtualProtect(slot, sizeof(*slot), PAGE_READWRITE, &protection);
                *slot = route.replacement;
                VirtualProtect(slot, sizeof(*slot), protection, &protection);
                ++changed;
                break;
            }
        }
    }
    return changed;
}

void RouteProcess(HMODULE thisLibrary) {
    ProcessRoutes& routes = TheRoutes();
    routes.thisLibrary = thisLibrary;
    const char* choice = std::getenv("QX_ROUTE");
    routes.systemModules = choice != nullptr && std::strcmp(choice, "all") == 0;
    routes.winsock = WinsockRoutes();
    routes.programKnobs = KnobRoutes(GetModuleHandleA(kRuntimeThreads) != nullptr);
    routes.moduleKnobs = KnobRoutes(true);
    ResolveAll();
    WatchLoads();
    VisitModules(RouteByKind);
}

int CountOwnModules() noexcept {
    int count = 0;
    VisitModules([&count](HMODULE module) { count += IsSystems(module) ? 0 : 1; });
    return count;
}

}  // namespace platform
