// Import routing: a module's calls of chosen functions are led elsewhere by changing its import table,
// nothing else of it. A slot is found by its value, the address that the loader resolved, so that imports by
// name, by number and forwarded ones are all found.
//
// Two sets of routes. The Winsock routes lead modules to the Winsock host: those of the test programs, and
// with QX_ROUTE=all in the environment the system's own as well, which a program's sockets may belong to.
// (Some keep Winsock started for ever, which a test that counts could not bear.) Winsock itself, the base
// provider and this library are never routed. The knob routes lead the modules under test to the stand-in's
// scripted parts of the system: clock, registry, debug output, fault points.
#pragma once

#include <windows.h>

#include <vector>

namespace platform {

struct Route {
    const char* library;
    const char* function;
    void* replacement;
    void* real = nullptr;  // filled in by ResolveRoutes unless it is given
};

/// Fills in the addresses that are not known yet. A library that is not loaded has no callers.
void ResolveRoutes(std::vector<Route>* routes);

/// Changes the module's slots; how many.
int RouteModule(HMODULE module, const std::vector<Route>& routes);

/// Routes every module that is loaded and every one that is loaded later, before its entry point runs. Once
/// per process, when this library is loaded.
void RouteProcess(HMODULE thisLibrary);

std::vector<Route> WinsockRoutes();

/// `waits`: also the waits of the clock, and the counting of what is made. Not for programs with their
/// runtime library inside, which waits in real time and keeps what it makes.
std::vector<Route> KnobRoutes(bool waits);

/// Modules loaded that are not the system's, this library and the program among them.
int CountOwnModules() noexcept;

}  // namespace platform
