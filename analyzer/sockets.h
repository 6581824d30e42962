// The server's sockets and the wait for them, without the headers of either system, whose names clash with
// those that the messages are built on. One definition per target: sockets_posix.cpp, sockets_windows.cpp.
// No socket here ever blocks. One thread, but for SocketWatch::Wake.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

/// A file descriptor or a SOCKET.
using SocketHandle = std::intptr_t;

/// A socket that closes itself.
class OwnedSocket {
  public:
    explicit OwnedSocket(SocketHandle handle) : handle_(handle) {}
    OwnedSocket(const OwnedSocket&) = delete;
    OwnedSocket& operator=(const OwnedSocket&) = delete;
    ~OwnedSocket();
    SocketHandle Get() const { return handle_; }

  private:
    SocketHandle handle_;
};

/// Listens on 127.0.0.1:`*port`; 0 takes any free one and is replaced by it. Throws std::system_error, which
/// names the port.
SocketHandle ListenOnLoopback(std::uint16_t* port);

/// How many connections there is room for in this process, as far as that is known; some room stays for other
/// things. Raises the process's own limit as far as it may.
std::size_t RoomForConnections() noexcept;

enum class Accepted {
    kConnection,
    kNothing,
    kNoResources,  ///< something waits, but the system has no descriptor or memory for it
};

/// Takes the next connection that waits, if there is one, with the port of its other end.
Accepted AcceptNext(SocketHandle listener, SocketHandle* connection, std::uint16_t* peerPort) noexcept;

enum class Transfer {
    kDone,    ///< `*count` bytes, at least one
    kEnded,   ///< the peer has ended its side
    kNotNow,  ///< the socket is worth another try when it is ready
    kFailed,
};

Transfer ReceiveSome(SocketHandle socket, void* bytes, std::size_t room, std::size_t* count) noexcept;
Transfer SendSome(SocketHandle socket, const void* bytes, std::size_t size, std::size_t* count) noexcept;

/// What a wait has found on a socket: that something can be read, that the connection has failed, or, with
/// neither set, that something can be written.
struct SocketEvent {
    std::uint64_t key;
    bool readable;
    bool failed;
};

/// Waits for many sockets at a time. Throws std::system_error where the system's calls fail.
class SocketWatch {
  public:
    SocketWatch();
    SocketWatch(const SocketWatch&) = delete;
    SocketWatch& operator=(const SocketWatch&) = delete;
    ~SocketWatch();

    /// Events of the socket carry `key`. It is to be forgotten before it is closed.
    void Add(SocketHandle socket, std::uint64_t key, bool read, bool write);
    void Change(SocketHandle socket, std::uint64_t key, bool read, bool write);
    void Forget(SocketHandle socket) noexcept;

    /// Waits for an event, `milliseconds` at most (-1: any time), and puts what there is into `*events`.
    /// False once there was a Wake.
    bool Wait(int milliseconds, std::vector<SocketEvent>* events);

    /// From any thread or a signal handler.
    void Wake() noexcept;

  private:
    struct System;
    std::unique_ptr<System> system_;
};
