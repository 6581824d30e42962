// A stream socket as applications of all kinds make, connect and use one.
#pragma once

#include <winsock2.h>

#include <atomic>
#include <cstddef>
#include <memory>

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
    ~ApplicationSocket();
    ApplicationSocket(const ApplicationSocket&) = delete;
    ApplicationSocket& operator=(const ApplicationSocket&) = delete;

    SOCKET Get() const { return socket_; }

    /// Waits until it is connected. The error, or 0.
    int Connect(const sockaddr_in& destination);

    /// All of the bytes; false when a call fails, with its error in LastError.
    bool Send(const char* bytes, std::size_t size);

    /// Up to `size` bytes; 0 at the end of the connection and for every error, which LastError then tells.
    std::size_t Receive(char* bytes, std::size_t size);
    /// The same in two steps: an overlapped receive is under way after the first, others begin with the
    /// second.
    void BeginReceive(char* bytes, std::size_t size);
    std::size_t EndReceive();
    int LastError() const { return error_; }

    void Close();

  private:
    struct PostedReceive;

    Kind kind_;
    SOCKET socket_;
    WSABUF receiving_ = {0, nullptr};
    std::unique_ptr<PostedReceive> posted_;  ///< overlapped
    std::atomic<int> error_{0};
};
