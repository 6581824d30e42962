// Windows' socket addresses: to and from endpoints, and to and from text. No state, no system call.
#pragma once

#include <winsock2.h>

#include "platform/tcpip/endpoint.h"

namespace tcpip {

/// Reads an address of the family. WSAEFAULT when it is null or too short, WSAEAFNOSUPPORT when it is of
/// another family; else 0.
int ReadAddress(const sockaddr* name, int length, bool v6, Endpoint* endpoint);

/// The size of the family's address.
int AddressLength(bool v6);

/// Writes the address and sets `*length`. WSAEFAULT when `name` or `length` is null or `*length` is too
/// small; nothing is written then.
int WriteAddress(const Endpoint& endpoint, sockaddr* name, int* length);

/// "1.2.3.4:80", "[::1]:80"; without the port when it is 0: "1.2.3.4", "::1". `text` holds
/// kMaximumAddressText characters; the result is the length without the final zero.
constexpr unsigned kMaximumAddressText = 80;
unsigned FormatAddress(const Endpoint& endpoint, char* text);

/// Reads the forms that FormatAddress writes, with nothing behind them. False when the text is no such
/// address.
bool ParseAddress(const char* text, bool v6, Endpoint* endpoint);

}  // namespace tcpip
