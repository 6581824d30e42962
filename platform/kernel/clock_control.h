// How the clock (platform/kernel/clock.h) is scaled, stopped and stepped. Every wait under way is told at
// once. Any thread may call. The clock belongs to the process.
#pragma once

#include <windows.h>

#include <cstdint>

namespace platform {

/// The clock runs `factor` times as fast as real time from now on; 0 stops it.
void SetClockRate(double factor);

/// Steps the clock forward, waits' deadlines and time stamps alike. Works at any rate.
void AdvanceClock(DWORD milliseconds);

/// Sets the calendar this far back from where it would be, as somebody who corrects it does: time stamps of
/// the calendar jump, waits and the clock go on.
void SetCalendarBack(DWORD milliseconds);

/// Back to real speed, from the present reading on, and to the right calendar.
void ResetClock();

/// How many waits with a deadline have begun in this process, those for objects as often as they go back to
/// sleep: what a test looks at that steps the clock once for every wait. Goes up only.
std::uint64_t CountBegunTimedWaits();

/// Blocks, in real time, until at least `count` threads wait with a deadline: what a test of a stopped clock
/// does before it steps. False after ten real seconds.
bool WaitForTimedWaits(int count);

}  // namespace platform
