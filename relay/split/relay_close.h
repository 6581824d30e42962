// Ends of a split connection, or of a side of it. All of this is done with a hold on the connection, which is
// exclusive for a moment and shared afterwards.
#pragma once

#include "relay/split/relay_connection_table.h"

/// How a side ended.
enum class SideEnd {
    kByPeer,      ///< its last byte has been received
    kByAnalyzer,  ///< it is to be closed
    kBroken,      ///< a send on it failed
};

/// Closes a side, behind the sends that are under way toward it. False when it had ended before.
bool CloseRelaySide(RelayHold& connection, const RelaySide& side, SideEnd end);

/// Closes both sides at once and, with `closeSpy`, the spy socket behind what is under way to the analyzer;
/// whoever waits for an answer is woken in any case. The connection stays in the table.
void CloseEntireRelayConnection(RelayHold& connection, bool closeSpy);

/// Whether nobody needs the connection any more: both sides have ended and so has the application's socket.
bool IsFinished(const RelayConnection& connection);

/// Ends the hold; a connection that is finished, or whose spy socket has been closed, is closed entirely and
/// taken out of the table.
void ReleaseRelayConnection(RelayHold& connection);
