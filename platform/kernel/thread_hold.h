// Stopping every other thread of the process for good, whoever made it, as Windows kills them when a process
// ends. A thread is asked by a signal and stops where it stands, but not in the middle of a call of the
// stand-in or of a system library, whose locks it might hold: unless it is blocked there, it is asked again a
// little later.
#pragma once

namespace platform {

/// Stops them, within a second of real time. Threads that block the signal (`LetThreadBeHeld` undoes that),
/// or don't come to a place where they can stop, run on.
void HoldOtherThreads() noexcept;

/// Stops the calling thread. When the process has not ended ten real seconds later, somebody waits for a
/// thread that is held: the process then ends there and then.
[[noreturn]] void HoldCurrentThread() noexcept;

/// For threads of the stand-in's own: the calling thread can be held, whatever its maker blocks.
void LetThreadBeHeld() noexcept;

}  // namespace platform
