// The stand-in's clock under names of its own: Windows' functions of the same names stay what they are.
#include "tests/windows/host/stand_in_knobs.h"

#define GetSystemTimeAsFileTime StandInGetSystemTimeAsFileTime
#define GetTickCount StandInGetTickCount
#define GetTickCount64 StandInGetTickCount64
#define QueryPerformanceCounter StandInQueryPerformanceCounter
#define QueryPerformanceFrequency StandInQueryPerformanceFrequency
ULONGLONG StandInGetTickCount64();

#include "platform/kernel/clock.cpp"
