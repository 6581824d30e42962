// The HTTP/1.0 side of the origin server: answers every request with the server's name and closes the
// connection. One thread serves all connections with select. Listen() all servers first, then Serve().
#pragma once

#include "apps/origin/http_answer.h"
#include "apps/shared/winsock_session.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class HttpServer {
  public:
    /// With `log` it prints a line for every answer that has ended.
    explicit HttpServer(bool log) : log_(log) {}

    /// Instead of answering requests: says this line to every client, and closes the connection.
    void Greet(const std::string& line) { greeting_ = line + "\r\n"; }

    /// Starts to listen for `name` on 127.0.0.1:`port` (0: a free one) and returns the port. Throws
    /// std::runtime_error.
    unsigned short Listen(const std::string& name, unsigned short port);

    /// Serves until StopRequested().
    void Serve();

  private:
    struct Listener {
        std::string name;
        UniqueSocket socket;
    };
    /// A connection first collects its request, then sends what is left of its answer.
    struct Connection {
        const Listener* listener;
        UniqueSocket socket;
        std::string request;
        std::optional<HttpAnswer> answer;
        std::string piece;     ///< of the answer, being sent
        std::size_t sent = 0;  ///< of the piece
        std::uint64_t sentInAll = 0;
        bool done = false;
    };

    void ServeReady();
    void Accept(const Listener& listener);
    void Receive(Connection* connection) const;
    void Send(Connection* connection) const;

    const bool log_;
    std::string greeting_;

    std::vector<Listener> listeners_;
    std::vector<Connection> connections_;
};
