// Numeric addresses as text and back, both families; the base provider uses them too. Not by libc, which
// would accept and produce forms that Windows does not. No state.
#pragma once

#include <winsock2.h>

#include <ws2tcpip.h>

#include <string>

namespace winsock_host {

/// Exactly four decimal numbers of at most 255.
bool ParseIpv4(const char* text, in_addr* address);

/// The old form of inet_addr: one to four numbers, decimal, octal or hexadecimal, the last one filling what
/// is left.
bool ParseLooseIpv4(const char* text, in_addr* address);

/// Eight groups with at most one "::", the last two groups possibly as an IPv4 address. No scope id.
bool ParseIpv6(const char* text, in6_addr* address);

std::string FormatIpv4(const in_addr& address);

/// The shortest form: lower case, the first longest run of two or more zero groups as "::", the last 32 bits
/// as an IPv4 address where they are one (compatible, mapped, translated, or led to through a tunnel).
std::string FormatIpv6(const in6_addr& address);

}  // namespace winsock_host
