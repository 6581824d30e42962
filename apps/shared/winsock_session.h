// The two resources that every program on Winsock owns: its start-up and its sockets; and the names of the
// errors that a user of the programs meets. Nothing here is shared between threads.
#pragma once

#include <winsock2.h>

#include <string>
#include <utility>

/// One WSAStartup, undone by the destructor. Throws std::runtime_error when Winsock does not start.
class WinsockSession {
  public:
    WinsockSession();
    ~WinsockSession();
    WinsockSession(const WinsockSession&) = delete;
    WinsockSession& operator=(const WinsockSession&) = delete;
};

/// Owner of one socket handle, closed on destruction; holds INVALID_SOCKET when empty.
class UniqueSocket {
  public:
    UniqueSocket() = default;
    explicit UniqueSocket(SOCKET socket) : socket_(socket) {}
    UniqueSocket(UniqueSocket&& other) noexcept : socket_(std::exchange(other.socket_, INVALID_SOCKET)) {}
    UniqueSocket& operator=(UniqueSocket&& other) noexcept {
        std::swap(socket_, other.socket_);
        return *this;
    }
    ~UniqueSocket() { Close(); }

    SOCKET Get() const { return socket_; }
    bool IsOpen() const { return socket_ != INVALID_SOCKET; }

    void Close() {
        if (IsOpen()) closesocket(std::exchange(socket_, INVALID_SOCKET));
    }

  private:
    SOCKET socket_ = INVALID_SOCKET;
};

/// "10061 (WSAECONNREFUSED)"; the number alone when the error has no name here.
std::string DescribeWinsockError(int error);

/// Throws std::runtime_error "`what`: <last Winsock error>".
[[noreturn]] void ThrowLastWinsockError(const std::string& what);
