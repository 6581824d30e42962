// Reads of memory that belongs to the application: it may be gone, or go while it is being read.
#pragma once

#include <winsock2.h>

#include <guarded_call.h>
#include <windows.h>

#include <cstddef>
#include <cstring>

/// Longest socket address that is taken from an application.
constexpr int kLongestName = 128;

/// Copies a socket address; the rest of `*copy` is zeroed. False when the length is negative or above
/// kLongestName, or the memory can't be read.
inline bool CopyCallerName(const sockaddr* name, int length, SOCKADDR_STORAGE* copy) {
    static_assert(sizeof(*copy) == kLongestName, "the copy holds the longest name");
    std::memset(copy, 0, sizeof(*copy));
    if (length < 0 || length > kLongestName) return false;
    if (length == 0) return true;
    if (name == nullptr) return false;
    return GuardedCall([&]() noexcept { std::memcpy(copy, name, static_cast<std::size_t>(length)); });
}
