// Reports about a socket whose spy socket belongs to its relay connection. The relay worker handles the
// packets of what is sent there and reads the answers.
#pragma once

#include "messages/message_pool.h"

struct SocketContext;

/// Sends the request and waits for its answer, with no lock. What the answer says of the traffic holds for
/// the relay connection too. Without an answer, null, that connection is closed. `failure` names the report
/// in the line about a send that failed.
PooledResponse AskThroughRelay(SocketContext* context, PooledRequest request, const char* failure);

/// Sends a request that is not answered. False when it can't be sent; true also when the connection has ended
/// and nothing is to be told any more.
bool TellThroughRelay(const SocketContext& context, PooledRequest request);
