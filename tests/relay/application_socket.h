// A stream socket as applications of all kinds make, connect and use one.
#pragma once

#include <winsock2.h>

#include <cstddef>

class ApplicationSocket {
  public:
    enum class Kind {
        kBlocking,
        kWithoutOverlapped,  ///< made without WSA_FLAG_OVERLAPPED
        kPolled,             ///< does not block to connect, which it calls again until it is connected
        kOverlapped,         ///< ConnectEx, and overlapped sends and receives
    };
    static constexpr Kind kKinds[] = {Kind::kBlocking, Kind::kWithoutOverlapped, Kind::kPolled,
                                      Kind::kOverlapped};

    explicit ApplicationSocket(Kind kind);
    ~ApplicationSocket() { Close(); }
    ApplicationSocket(const ApplicationSocket&) = delete;
    ApplicationSocket& operator=(const ApplicationSocket&) = delete;

    SOCKET Get() const { return socket_; }

    /// Waits until it is connected. The error, or 0.
    int Connect(const sockaddr_in& destination);

    /// All of the bytes; false when a call fails.
    bool Send(const char* bytes, std::size_t size);

    /// Up to `size` bytes; 0 at the end of the connection and for every error, which LastError then tells.
    std::size_t Receive(char* bytes, std::size_t size);
    int LastError() const { return error_; }

    void Close();

  private:
    Kind kind_;
    SOCKET socket_;
    int error_ = 0;
};
