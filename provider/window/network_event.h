// A network event on its way from the hidden window to the application's.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include "provider/window/window_life.h"

/// Posts the event of a lower socket to the application's window, with the application's handle. False when
/// the event is dropped: the socket has no context, and either none is on its way or it has not come within
/// three and a half seconds, or the window is to end. Runs on the window's thread.
bool ForwardNetworkEvent(const WindowLife& life, SOCKET lowerSocket, LPARAM eventAndError);
