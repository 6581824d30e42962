// A single-threaded TCP server on 127.0.0.1 that cuts what arrives into frames and sends what the handler
// makes of them. It bounds what a client can take: connections, the time until it asks something, bytes of a
// frame and of all frames, unsent answers, the time a frame may take to arrive. A client beyond a limit loses
// a connection; the others never notice.
//
// Everything runs on the thread of `Run`, but for `Stop` and `Interrupt`.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

class FrameHandlers;

struct ServerLimits {
    /// Fewer where the system has no room for so many.
    std::size_t connections = 4096;
    /// Of one process, and of all those together that have asked nothing yet.
    std::size_t connectionsOfOne = 1024;
    /// From the connect to the end of the first frame. The layer connects when it has something to ask.
    std::uint32_t silentMilliseconds = 10000;
    /// Bytes of unfinished frames, of all connections together.
    std::size_t bufferedBytes = 256u * 1024 * 1024;
    /// Answers that a client doesn't take; nothing more is read from it meanwhile.
    std::size_t unsentBytes = 256u * 1024;
    /// From the first byte of a frame to its last.
    std::uint32_t frameMilliseconds = 30000;
};

class Server {
  public:
    using Note = std::function<void(const std::string&)>;
    /// The time by which the limits count. A clock that jumps is noticed at the next event.
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    /// Listens on 127.0.0.1:`port` (0: any). `handlers` must outlive the server; `note` (may be empty) gets
    /// one line for every connection that is given up, with the client's process or port. Throws
    /// std::system_error.
    Server(std::uint16_t port, FrameHandlers& handlers, const ServerLimits& limits, Note note,
           Clock clock = std::chrono::steady_clock::now);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server();

    std::uint16_t Port() const;

    /// Serves until `Stop` or `Interrupt`. True after the latter: it may be called again, and the connections
    /// go on. Throws std::system_error when waiting itself fails.
    bool Run();

    /// Ends `Run` for good. From any thread or a signal handler.
    void Stop() noexcept;

    /// Makes `Run` return soon. From any thread or a signal handler.
    void Interrupt() noexcept;

  private:
    class Implementation;
    std::unique_ptr<Implementation> implementation_;
};
