// The one thread that takes the packets of the relay's port, and so everything that happens on the relay's
// sockets: it forwards, asks, obeys and closes, and never waits for anything but the port.
#pragma once

#include <windows.h>

/// Byte count of the packet, without a record, that ends the worker.
constexpr DWORD kStopPacket = 0xFFFFFFFF;

/// The thread's procedure; its argument is the port. With RelayShutdown it does nothing more but take back
/// the records of all posted requests. It ends when RelaySocketsClosed is set as well and they have come, for
/// which it waits a second at most after the last one.
DWORD WINAPI RelayWorker(LPVOID port);
