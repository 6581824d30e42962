// One send or receive of the application's, as the interception looks at it. On the thread that carries it
// out, or that has its completion in hand, with a reference to the context and no lock.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include <cstdint>

#include "messages/analyzer_messages.h"
#include "relay/interception/data_sample.h"

struct SocketContext;

/// What is particular to one of the two ways that bytes go.
struct TrafficDirection {
    bool Received;
    DWORD ProbedBit;
    OperationCode Report;
    OperationCode ProtocolReport;
    const char* StreamFailure;  ///< names the report in the line about a send that failed
    const char* DatagramFailure;
};

extern const TrafficDirection kSending;
extern const TrafficDirection kReceiving;

struct Traffic {
    SocketContext* Context;
    const TrafficDirection& Direction;
    const WSABUF* Buffers;  ///< the application's, like what they point to
    DWORD BufferCount;
    DWORD Limit;  ///< bytes of the buffers that count

    bool CopyTo(DataSample* sample) const { return sample->Copy(Buffers, BufferCount, Limit); }
};

/// The protocol that the first buffer begins like, or 0.
std::uint32_t RecogniseProtocol(const Traffic& traffic, const DataSample& sample, std::uint16_t remotePort);

/// A send may be tried again after a verdict's block. Not after the relay has found that there is nobody to
/// send to.
void AllowSending(const Traffic& traffic);

/// Recognises the protocol and reports what is to be reported. True when that is refused; the context's
/// `Blocked` is then set.
bool LookAtStream(const Traffic& traffic);

/// The same for a datagram to or from `peer`, or where the socket is connected to when it is null.
bool LookAtDatagram(const Traffic& traffic, const sockaddr* peer);

/// Whether a look at bytes of a direction would find anything to do, as the context stands.
bool IsStreamLookedAt(const SocketContext& context, const TrafficDirection& direction);
bool IsDatagramLookedAt(const SocketContext& context, const TrafficDirection& direction);
