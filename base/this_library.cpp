// See this_library.h.
#include "base/this_library.h"

namespace {

HMODULE FindThisLibrary(DWORD flags) {
    HMODULE library = nullptr;
    const auto* const codeInside = reinterpret_cast<LPCWSTR>(&ReferenceThisLibrary);
    flags |= GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS;
    return GetModuleHandleExW(flags, codeInside, &library) ? library : nullptr;
}

DWORD WINAPI GiveReferenceBack(LPVOID library) {
    FreeLibraryAndExitThread(static_cast<HMODULE>(library), 0);
}

}  // namespace

HMODULE ReferenceThisLibrary() {
    return FindThisLibrary(0);
}

void KeepThisLibraryLoaded() {
    FindThisLibrary(GET_MODULE_HANDLE_EX_FLAG_PIN);
}

bool GiveReferenceBackElsewhere(HMODULE library) {
    const HANDLE thread = CreateThread(nullptr, 0, GiveReferenceBack, library, 0, nullptr);
    if (thread == nullptr) return false;
    CloseHandle(thread);
    return true;
}
