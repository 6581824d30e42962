// Puts a send or a receive to the analyzer, waits for the answer and applies it: on the socket's own spy
// socket, one exchange at a time, or through its relay connection, whose worker reads the answers.
#pragma once

#include "relay/interception/traffic.h"

/// What the call has found out about the protocol.
enum class ProtocolNews { kNone, kRecognised, kGivenUp };

/// Whether the socket is talked about with the analyzer already.
bool HasChannel(const SocketContext& context);

/// Reports on the channel that the socket has. A recognised protocol takes the data along. True, with
/// `Blocked` set, when the answer refuses; without an answer the channel is given up and the operation goes
/// on.
bool ReportStreamTraffic(const Traffic& traffic, ProtocolNews news, DataSample* sample);

/// The same for a datagram; a channel is made when there is none. When that can't be done, the fail-connect
/// policy decides.
bool ReportDatagram(const Traffic& traffic, ProtocolNews news, DataSample* sample,
                    const SOCKADDR_STORAGE& peer);
