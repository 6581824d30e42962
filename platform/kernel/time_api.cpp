// Windows' functions of time, all on the one clock.
#include <windows.h>

#include <cstdint>

#include "platform/kernel/clock.h"

namespace {

constexpr std::int64_t kNanosecondsPerMillisecond = 1'000'000;

}  // namespace

void GetSystemTimeAsFileTime(LPFILETIME time) {
    const auto now = static_cast<std::uint64_t>(platform::CalendarNow());
    time->dwLowDateTime = static_cast<DWORD>(now);
    time->dwHighDateTime = static_cast<DWORD>(now >> 32);
}

DWORD GetTickCount() {
    return static_cast<DWORD>(GetTickCount64());
}

ULONGLONG GetTickCount64() {
    return static_cast<ULONGLONG>(platform::ClockNow() / kNanosecondsPerMillisecond);
}

BOOL QueryPerformanceCounter(LARGE_INTEGER* count) {
    count->QuadPart = platform::ClockNow();
    return TRUE;
}

BOOL QueryPerformanceFrequency(LARGE_INTEGER* frequency) {
    frequency->QuadPart = 1'000'000'000;
    return TRUE;
}
