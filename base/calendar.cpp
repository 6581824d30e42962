// See calendar.h.
#include "base/calendar.h"

#include <winsock2.h>

#include <windows.h>

namespace {

constexpr unsigned long long kTicksPerSecond = 10000000;  // a file time counts 100 nanoseconds
constexpr long long kSecondsFrom1601To1970 = 11644473600LL;

}  // namespace

long long CalendarSeconds() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    const unsigned long long ticks =
        static_cast<unsigned long long>(now.dwHighDateTime) << 32 | now.dwLowDateTime;
    return static_cast<long long>(ticks / kTicksPerSecond) - kSecondsFrom1601To1970;
}
