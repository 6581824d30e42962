// Loaded modules: shared libraries of the native system, with an entry point DllMain when they have one.
//
// The loader lock is held while entry points run, on loading, unloading, and when a thread made by
// CreateThread starts and ends, as on Windows: a DllMain that waits for such a thread waits in vain. It is
// re-entrant, the outermost lock of the stand-in, and never taken with another one held.
#pragma once

#include <windows.h>

#include <string>

namespace platform {

// The loader behind the API functions; on failure they set the last error.

HMODULE LoadModule(const std::string& path);
BOOL FreeModule(HMODULE module);
/// The executable for a null name.
HMODULE FindModule(const char* name);
/// By address when that is given, else by name (null: the executable). `flags` as in GetModuleHandleEx.
BOOL FindModuleEx(DWORD flags, const char* name, const void* address, HMODULE* result);
/// Empty when it is not loaded.
std::string PathOfModule(HMODULE module);
void* FindExport(HMODULE module, const char* name);
BOOL DeclineThreadCalls(HMODULE module);

/// Calls the entry points of all loaded modules that have not declined it, for the calling thread.
void NotifyModulesOfThread(DWORD reason) noexcept;

/// Process end: detaches the modules still loaded, latest first, with a reserved argument that isn't null.
void DetachModulesAtExit() noexcept;

int CountModules() noexcept;

}  // namespace platform
