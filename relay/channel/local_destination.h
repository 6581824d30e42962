// Which destinations the analyzer is never asked about. Any thread, no lock.
#pragma once

#include <winsock2.h>

struct SocketContext;

/// The number at the start of the n-th (from 0) field of a text whose fields are divided by dots, cut to
/// eight bits: 4 for "4:80", 0 for a field without digits. Callers compare it as an unsigned byte.
signed char AddressOctet(const char* text, int n);

/// Whether the destination is loopback, private, broadcast or multicast, or the context's socket is neither
/// stream nor datagram: then nothing is asked and the flags ReportTraffic, InspectData, CountTraffic and
/// AnalyzerServes of the context are cleared. Every address that isn't AF_INET counts as local.
bool IsLocalDestination(SocketContext* context, const SOCKADDR_STORAGE& destination);

/// The same for the destination that the context holds.
bool IsLocalDestination(SocketContext* context);
