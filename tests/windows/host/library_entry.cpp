// The host library routes its process as soon as it is loaded: a test program imports it, an unmodified
// program has it loaded before its first own instruction.
#include <windows.h>

#include <cstdlib>

#include "platform/testing/clock.h"
#include "tests/windows/host/routing.h"

namespace {

/// QX_CLOCK_SCALE makes the clock run faster than real time, as in native programs.
void ScaleClock() {
    const char* const scale = std::getenv("QX_CLOCK_SCALE");
    const double rate = scale != nullptr ? std::atof(scale) : 0;
    if (rate > 0 && rate != 1) platform::SetClockRate(rate);
}

}  // namespace

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) {
        ScaleClock();
        platform::RouteProcess(instance);
    }
    return TRUE;
}
