// The datagram side of the origin server: sends every datagram back behind the server's name. One thread.
#pragma once

#include "apps/shared/winsock_session.h"

#include <string>
#include <vector>

class DatagramEcho {
  public:
    /// Binds a socket for `name` to 127.0.0.1:`port` (0: a free one) and returns the port. Throws
    /// std::runtime_error.
    unsigned short Bind(const std::string& name, unsigned short port);

    /// Serves until StopRequested().
    void Serve();

  private:
    struct Server {
        std::string name;
        UniqueSocket socket;
    };

    static void Echo(const Server& server);

    std::vector<Server> servers_;
};
