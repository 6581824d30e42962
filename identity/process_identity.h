// Who stands behind the sockets of this process: the two values that take calls which can block (the main
// window's title, the signer of the executable) and the background thread that collects them while the
// application goes on. Threads: the collection thread alone writes the two texts; everyone else copies them
// under `IdentityLock`, which is held for the copy and nothing else. They are plain arrays, so that nothing
// has to be destroyed at detach. Starting and stopping run under `GlobalLock`, which therefore guards the
// handle of the collection thread.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include <string>

#include "messages/message_limits.h"
#include "provider/process_state.h"

/// Title of the host process's main window. Read and written under `IdentityLock`; "<Unknown>" until a
/// collection has found a window that answers.
extern char MainWindowTitle[256] QX_GUARDED_BY(IdentityLock);

/// Simple display name of the certificate that signed the host executable, cut to what a request can carry.
/// Read and written under `IdentityLock`; "<Unknown>" until the first collection, then empty for an unsigned
/// executable.
extern char ImageSignerSubject[kMaxStringLength + 1] QX_GUARDED_BY(IdentityLock);

/// Starts a collection unless one is running. Called with `GlobalLock` held, at every start-up of the
/// provider. A thread that can't be created is traced; the old values stay and the next start-up tries again.
void StartProcessInfoCollection();

/// Gives a collection that is running half a second to end. One that takes longer goes on, and keeps the
/// library loaded until it has ended; it may be inside the loader, the heap or another program's window, and
/// ending it by force would take the process with it. Called with `GlobalLock` held and `IdentityLock` not
/// held.
void StopProcessInfoCollection();

/// Releases the collection's handle. For the detach, where none can be running: it would have kept the
/// library.
void ForgetProcessInfoCollection();

/// What the thread does: collects both values once. Result 0.
DWORD WINAPI CollectProcessInfo(LPVOID parameter);

/// The simple display name of the certificate that signed the host executable; empty when there is none or a
/// step of finding it fails (the step is traced, except that an unsigned executable is nothing worth a line).
std::string GetImageSignerSubject();

/// The title (at most 255 characters) of the host process's main window, or "<Unknown>". May take four
/// seconds when the window doesn't answer. Runs on one thread at a time.
std::string GetMainWindowTitle();

/// EnumWindows callback: stops at the first top-level window of this process that has a root owner, and
/// stores that owner in the HWND that `found` points at if it answers within a second.
BOOL CALLBACK FindMainWindowProc(HWND window, LPARAM found);
