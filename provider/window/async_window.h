// The layer's hidden window. A lower provider posts the network events of its sockets there; the window's
// procedure puts the application's handle in place of the lower socket and posts them on to the application's
// window.
//
// One thread owns the window. It keeps the library loaded for as long as it runs, since hooks of other
// programs' making run on it as on every thread with a window, and nobody can tell when they come back.
#pragma once

#include <windows.h>

/// The number of the message by which a lower provider tells the hidden window of an event.
constexpr UINT kNetworkEventMessage = WM_USER + 321;

/// Lets the window be made from now on. Called by the first start-up, with GlobalLock held.
void AllowAsyncWindow();

/// The hidden window, made by the first call. Null when it could not be made, and when the last clean-up has
/// begun. Takes GlobalLock; waits without a lock until the window is there.
HWND StartAsyncWindow();

/// Ends the window and its thread, which is given ten seconds; none is made until the next start-up. Called
/// without any lock, since the thread takes GlobalLock.
void StopAsyncWindow();

/// For the attach: a module that is attached again without having left memory starts anew.
void ForgetAsyncWindow();
