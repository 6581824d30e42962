// A single-threaded TCP server on 127.0.0.1 that cuts what arrives into frames and sends what the handler
// makes of them. It bounds what a client can take: connections, bytes of a frame and of all frames, unsent
// answers, the time a frame may take to arrive. A client beyond a limit loses its connection; the others
// never notice.
//
// Everything runs on the thread of `Run`, but for `Stop`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

class FrameHandler;

struct ServerLimits {
    std::size_t connections = 4096;
    /// Bytes of unfinished frames, of all connections together.
    std::size_t bufferedBytes = 256u * 1024 * 1024;
    /// Answers that a client doesn't take; nothing more is read from it meanwhile.
    std::size_t unsentBytes = 256u * 1024;
    /// From the first byte of a frame to its last.
    std::uint32_t frameMilliseconds = 30000;
};

class Server {
  public:
    /// Listens on 127.0.0.1:`port` (0: any). `handler` must outlive the server; `note` (may be empty) gets
    /// one line for every connection that is given up. Throws std::system_error.
    Server(std::uint16_t port, FrameHandler& handler, const ServerLimits& limits,
           std::function<void(const std::string&)> note);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server();

    std::uint16_t Port() const;

    /// Serves until `Stop`. Throws std::system_error when waiting itself fails.
    void Run();

    /// Ends `Run`. From any thread or a signal handler.
    void Stop() noexcept;

  private:
    class Implementation;
    std::unique_ptr<Implementation> implementation_;
};
