// The end of the process. Windows kills every other thread before it detaches the modules; here the threads
// made by CreateThread count as ended and are frozen at their next platform call or when a wait of theirs
// ends. Other native threads run on until the process is gone.
#pragma once

namespace platform {

/// Registers the detaching of modules with the C runtime's exit handlers; the latest registration runs first,
/// before the static objects of everything loaded until then are destroyed.
void RegisterProcessExit() noexcept;

/// Never returns on a thread made by CreateThread, unless it is the exiting one, once the process ends.
void FreezeIfProcessEnds() noexcept;

/// True on the exiting thread while modules are being detached.
bool IsExitingThread() noexcept;

/// Ends the process with the status it was about to end with: the exiting thread needs a lock that a frozen
/// one holds.
[[noreturn]] void AbandonProcessExit() noexcept;

}  // namespace platform
