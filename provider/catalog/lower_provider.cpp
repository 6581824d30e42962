// Loading and starting the lower provider of a catalog entry. A lower provider that can't be started leaves
// nothing behind, so that the next start-up or socket can try again.
#include <cstring>

#include "provider/catalog/catalog.h"
#include "provider/catalog/lower_call.h"
#include "provider/operation_failure.h"
#include "provider/process_state.h"

namespace {

constexpr DWORD kPathCapacity = MAX_PATH - 1;

/// The last error, which must not read as success.
INT LastErrorOrFailure() {
    const DWORD error = GetLastError();
    return error != 0 ? static_cast<INT>(error) : WSAEPROVIDERFAILEDINIT;
}

/// Loads the library by its registered path in the ANSI code page, for a system that can't expand wide paths.
HMODULE LoadByNarrowPath(const LspEntry& entry) {
    char path[MAX_PATH];
    char expanded[MAX_PATH];
    if (WideCharToMultiByte(CP_ACP, 0, entry.ProviderPath, -1, path, sizeof(path), nullptr, nullptr) == 0)
        return nullptr;
    const DWORD length = ExpandEnvironmentStringsA(path, expanded, kPathCapacity);
    if (length == 0 || length > kPathCapacity) return nullptr;
    return LoadLibraryA(expanded);
}

HMODULE LoadLowerLibrary(LspEntry* entry) {
    const DWORD length = ExpandEnvironmentStringsW(entry->ProviderPath, entry->LibraryPath, kPathCapacity);
    if (length >= MAX_PATH) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return nullptr;
    }
    return length != 0 ? LoadLibraryW(entry->LibraryPath) : LoadByNarrowPath(*entry);
}

/// Whether every operation of a lower provider is there.
bool IsCompleteTable(const WSPPROC_TABLE& table) {
    constexpr std::size_t kOperations = sizeof(table) / sizeof(void*);
    static_assert(kOperations == 30, "a provider has 30 operations");
    void* operations[kOperations];
    std::memcpy(operations, &table, sizeof(table));
    for (const void* operation : operations) {
        if (operation == nullptr) return false;
    }
    return true;
}

/// Calls the loaded library's start-up; 0 or its error. An incomplete table ends the start-up again.
INT StartLowerProvider(LspEntry* entry, WORD version, LPWSAPROTOCOL_INFOW info,
                       const WSPUPCALLTABLE& upcalls) {
    LPWSAPROTOCOL_INFOW lowerInfo = entry->LowerIsLayered() && info != nullptr ? info : &entry->NextProvider;
    INT error = 0;
    const int result = CallLower(entry, WSAEFAULT, &error, [&]() noexcept {
        return entry->LowerStartup(version, &entry->LowerData, lowerInfo, upcalls, &entry->LowerProcedures);
    });
    if (result != 0) return result;
    if (IsCompleteTable(entry->LowerProcedures)) return 0;
    if (entry->LowerProcedures.lpWSPCleanup != nullptr) {
        CallLower(entry, SOCKET_ERROR, &error,
                  [&]() noexcept { return entry->LowerProcedures.lpWSPCleanup(&error); });
    }
    return WSAEINVALIDPROCTABLE;
}

/// Path, library and start-up export of the lower provider; 0 or the error.
INT LoadLowerProvider(LspEntry* entry) {
    INT error = 0;
    GUID id = entry->NextProvider.ProviderId;
    entry->ProviderPathLength = kPathCapacity;
    if (WSCGetProviderPath(&id, entry->ProviderPath, &entry->ProviderPathLength, &error) == SOCKET_ERROR) {
        return error != 0 ? error : LastErrorOrFailure();
    }
    entry->ProviderPath[kPathCapacity] = 0;
    entry->Module = LoadLowerLibrary(entry);
    if (entry->Module == nullptr) return LastErrorOrFailure();
    const FARPROC startup = GetProcAddress(entry->Module, "WSPStartup");
    if (startup == nullptr) return LastErrorOrFailure();
    std::memcpy(&entry->LowerStartup, &startup, sizeof(startup));
    return 0;
}

}  // namespace

int InitializeProvider(LspEntry* entry, WORD version, LPWSAPROTOCOL_INFOW info, const WSPUPCALLTABLE& upcalls,
                       LPINT error) {
    *error = LoadLowerProvider(entry);
    if (*error == 0) *error = StartLowerProvider(entry, version, info, upcalls);
    if (*error == 0) {
        entry->LowerStartupCount.Increment();
        return 0;
    }
    if (entry->Module != nullptr) FreeLibrary(entry->Module);
    entry->Module = nullptr;
    return SOCKET_ERROR;
}

int EnsureProviderStarted(LspEntry* entry, LPWSAPROTOCOL_INFOW info, LPINT error) {
    if (entry->LowerStartupCount > 0) return 0;
    const Locker lock(qx::GlobalLock);
    // Two threads that both found it stopped must not load it twice; and a clean-up may have come first.
    if (entry->LowerStartupCount > 0) return 0;
    if (PrivateHeap == nullptr || PrivateHeap != entry->Lifetime->Heap) {
        return Fail(WSANOTINITIALISED, error);
    }
    return InitializeProvider(entry, MAKEWORD(2, 2), info, UpcallTable, error);
}
