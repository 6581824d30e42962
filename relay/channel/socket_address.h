// A socket address of any length as the 128 bytes that messages and contexts hold.
#pragma once

#include <winsock2.h>

#include <ws2tcpip.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

/// The first `length` bytes of `name`, at most 128, and zeros after them. `name` is the library's own copy.
inline SOCKADDR_STORAGE CopyAddress(const sockaddr* name, int length) {
    SOCKADDR_STORAGE address{};
    const auto size = std::min(static_cast<std::size_t>(std::max(length, 0)), sizeof address);
    std::memcpy(&address, name, size);
    return address;
}
