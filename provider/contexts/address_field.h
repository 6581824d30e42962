// A socket address inside a socket context: 128 bytes that application threads store and read without a lock.
// An IPv4 address (family, port, number) lies in the first 8 bytes, which are always stored and read as one;
// a longer address may come out mixed when two threads store different ones at the same time, which an
// application that does so can't complain about.
#pragma once

#include <winsock2.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "base/atomic.h"

class AddressField {
  public:
    static constexpr int kSize = 128;

    AddressField() noexcept = default;
    AddressField(const AddressField&) = delete;
    AddressField& operator=(const AddressField&) = delete;

    /// Stores the first `length` bytes of `name` (at most 128, none when `name` is null) and zeroes the rest.
    /// `name` is trusted: memory of the application is copied under a guard first.
    void Store(const void* name, int length) noexcept {
        std::uint64_t words[kWords] = {};
        if (name != nullptr && length > 0) {
            std::memcpy(words, name, static_cast<std::size_t>(length < kSize ? length : kSize));
        }
        for (std::size_t i = 0; i < kWords; ++i)
            words_[i] = words[i];
    }

    /// A copy of the stored address.
    SOCKADDR_STORAGE Load() const noexcept {
        std::uint64_t words[kWords];
        for (std::size_t i = 0; i < kWords; ++i)
            words[i] = words_[i];
        SOCKADDR_STORAGE address;
        static_assert(sizeof(address) == sizeof(words), "a socket address is 128 bytes");
        std::memcpy(&address, words, sizeof(address));
        return address;
    }

    /// The address family; 0 while nothing is stored.
    int Family() const noexcept {
        unsigned short family;
        CopyFromFirstWord(&family, 0);
        return family;
    }

    /// The port in host order (it stands at the same place in IPv4 and IPv6 addresses).
    unsigned short Port() const noexcept {
        unsigned char bytes[2];
        CopyFromFirstWord(&bytes, 2);
        return static_cast<unsigned short>(bytes[0] << 8 | bytes[1]);
    }

  private:
    static constexpr std::size_t kWords = kSize / sizeof(std::uint64_t);

    template <class T>
    void CopyFromFirstWord(T* value, std::size_t offset) const noexcept {
        const std::uint64_t word = words_[0];
        std::memcpy(value, reinterpret_cast<const unsigned char*>(&word) + offset, sizeof(*value));
    }

    Atomic<std::uint64_t> words_[kWords] = {};
};
