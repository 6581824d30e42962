// Splitting the connection of an application's socket, and letting go of one. On the application's thread,
// which holds a reference to the context and no lock.
#pragma once

#include "provider/interception.h"

struct SocketContext;

/// Splits the connection that the socket is about to make to `target->name`: the relay gets the context's spy
/// socket, begins to connect a server socket of its own unless the analyzer serves, and `*target` becomes the
/// relay's listener. For a socket that can't be overlapped, waits until the server socket is connected. False
/// when that can't be done, with nothing of it left and the context's spy socket closed.
bool SplitConnection(SocketContext* context, ConnectTarget* target);

/// Closes and removes the relay connection of the socket: it will not be connected to the relay.
void CloseSplit(SocketContext* context);

/// The application closes the socket, or uses it for another connection: what it has sent before still goes
/// its way, and then the relay connection ends by itself.
void LeaveSplit(SocketContext* context);
