// IPv4 endpoints as the programs read and write them: "203.0.113.10:80". Pure functions.
#pragma once

#include <winsock2.h>

#include <optional>
#include <string>

/// Reads "A.B.C.D:PORT"; without ":PORT" the port is `defaultPort`. Nothing for anything else, host names
/// included.
std::optional<sockaddr_in> ParseEndpoint(const std::string& text, unsigned short defaultPort);

/// "A.B.C.D:PORT".
std::string FormatEndpoint(const sockaddr_in& endpoint);

/// 127.0.0.1 with `port` (host order).
sockaddr_in LoopbackEndpoint(unsigned short port);

/// Reads a whole decimal number of 0..65535.
std::optional<unsigned short> ParsePort(const std::string& text);
