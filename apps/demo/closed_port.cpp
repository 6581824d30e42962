// A socket that is bound but doesn't listen: connects to it are refused.
#include "apps/demo/closed_port.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

ClosedPort::ClosedPort() : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    auto* const name = reinterpret_cast<sockaddr*>(&address);
    if (bind(socket_, name, length) != 0 || getsockname(socket_, name, &length) != 0) {
        close(socket_);
        throw std::runtime_error("cannot reserve a port");
    }
    number_ = ntohs(address.sin_port);
}

ClosedPort::~ClosedPort() {
    close(socket_);
}
