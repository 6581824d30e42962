// The one thread that takes the packets of the relay's port, and so everything that happens on the relay's
// sockets: it forwards, asks, obeys and closes, and never waits for anything but the port.
#pragma once

#include <windows.h>

/// Byte count of the packet, without a record, that ends the worker.
constexpr DWORD kStopPacket = 0xFFFFFFFF;

/// The thread's procedure; its argument is the port. It ends when RelayShutdown is set, once the records of
/// all posted requests have come back, for which it waits a second at most after the last one.
DWORD WINAPI RelayWorker(LPVOID port);
