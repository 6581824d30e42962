// The end of the process. Windows kills every other thread before it detaches the modules; here they count as
// ended and are held where they are, at the latest at their next platform call or when a wait of theirs ends.
#pragma once

namespace platform {

/// Registers the detaching of modules with the C runtime's exit handlers; the latest registration runs first,
/// before the static objects of everything loaded until then are destroyed.
void RegisterProcessExit() noexcept;

/// From now on modules are not registered: for a host inside a program that knows nothing of it, whose
/// threads go on while the program ends, and which ends its modules by itself or not at all.
void LeaveProcessEndAlone() noexcept;

/// Never returns on any thread but the exiting one, once the process ends.
void FreezeIfProcessEnds() noexcept;

/// True on the exiting thread while modules are being detached.
bool IsExitingThread() noexcept;

/// Ends the process with the status it was about to end with: the exiting thread needs what a held one
/// will never give.
[[noreturn]] void AbandonProcessExit() noexcept;

}  // namespace platform
