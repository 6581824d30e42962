// The datagram echo loop; see the header.
#include "apps/origin/datagram_echo.h"

#include "apps/shared/endpoint.h"
#include "apps/shared/stop_request.h"

unsigned short DatagramEcho::Bind(const std::string& name, unsigned short port) {
    UniqueSocket server(socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP));
    sockaddr_in address = LoopbackEndpoint(port);
    int length = sizeof(address);
    if (!server.IsOpen() ||
        bind(server.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == SOCKET_ERROR ||
        getsockname(server.Get(), reinterpret_cast<sockaddr*>(&address), &length) == SOCKET_ERROR) {
        ThrowLastWinsockError("cannot bind port " + std::to_string(port));
    }
    servers_.push_back({name, std::move(server)});
    return ntohs(address.sin_port);
}

void DatagramEcho::Serve() {
    while (!StopRequested()) {
        fd_set readable;
        FD_ZERO(&readable);
        for (const Server& server : servers_)
            FD_SET(server.socket.Get(), &readable);
        timeval limit = {0, kStopPollMicroseconds};
        const int ready = select(0, &readable, nullptr, nullptr, &limit);
        if (ready == SOCKET_ERROR) ThrowLastWinsockError("cannot wait for datagrams");
        if (ready == 0) continue;
        for (const Server& server : servers_) {
            if (FD_ISSET(server.socket.Get(), &readable)) Echo(server);
        }
    }
}

void DatagramEcho::Echo(const Server& server) {
    char buffer[65536];
    sockaddr_in peer = {};
    int length = sizeof(peer);
    const int count =
        recvfrom(server.socket.Get(), buffer, sizeof(buffer), 0, reinterpret_cast<sockaddr*>(&peer), &length);
    // An error here is news of an earlier answer (its receiver has gone), not of this socket.
    if (count == SOCKET_ERROR) return;
    const std::string answer = server.name + " " + std::string(buffer, static_cast<std::size_t>(count));
    sendto(server.socket.Get(), answer.data(), static_cast<int>(answer.size()), 0,
           reinterpret_cast<const sockaddr*>(&peer), length);
}
