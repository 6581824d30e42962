// References on this library, which keep its code in memory while threads run in it. The first two take the
// loader's lock.
#pragma once

#include <windows.h>

/// Null when there is none to be had.
HMODULE ReferenceThisLibrary();

/// Keeps the library until the process ends: for threads of which nobody could tell when they have executed
/// its last instruction.
void KeepThisLibraryLoaded();

/// Gives a reference back for a thread that goes on inside the library. That may be the last one, and the
/// code that gives it back must not go with it. False when that can't be done; the reference is then the
/// caller's still.
bool GiveReferenceBackElsewhere(HMODULE library);
