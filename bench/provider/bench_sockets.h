// Winsock sockets for the benchmarks: the same calls on a socket of the base provider and on one of the
// layer, in one process.
#pragma once

#include <winsock2.h>

#include <windows.h>

#include <cstdint>

enum class Through { kBase, kLayer };

/// Puts a machine with base provider and layer into force, on which the analyzer listens on `analyzerPort`
/// and the public addresses below lead to `destinationPort` and `sinkPort` of the loopback interface; starts
/// Winsock. Returns false with a message on stderr when that can't be done.
bool StartBenchMachine(std::uint16_t analyzerPort, std::uint16_t destinationPort, std::uint16_t sinkPort);
void StopBenchMachine();

/// 203.0.113.10:80, which the layer asks the analyzer about, and 203.0.113.11:80.
sockaddr_in PublicAddress();
sockaddr_in PublicSinkAddress();
sockaddr_in LoopbackAddress(std::uint16_t port);

/// A TCP or UDP socket of the base provider or the layer; ends the program when there is none.
SOCKET NewBenchSocket(Through through, int type = SOCK_STREAM);

/// A connected TCP socket, without Nagle's delay; the second form's port is on the loopback interface.
SOCKET ConnectedBenchSocket(Through through, const sockaddr_in& address);
SOCKET ConnectedBenchSocket(Through through, std::uint16_t port);

/// Ends the program with the Winsock error when `condition` is false: a failing call would be measured as
/// fast.
void Check(bool condition, const char* what);
