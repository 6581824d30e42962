// The select loop of the HTTP server; see the header.
#include "apps/origin/http_server.h"

#include "apps/shared/endpoint.h"
#include "apps/shared/stop_request.h"

#include <algorithm>

namespace {

constexpr std::size_t kMaxRequestBytes = 16384;

std::string MakeAnswer(const std::string& name, const std::string& request) {
    const std::string requestLine = request.substr(0, request.find_first_of("\r\n"));
    const std::string body = name + "\n" + requestLine + "\n";
    return "HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n\r\n" + body;
}

}  // namespace

unsigned short HttpServer::Listen(const std::string& name, unsigned short port) {
    UniqueSocket listener(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
    sockaddr_in address = LoopbackEndpoint(port);
    int length = sizeof(address);
    u_long on = 1;
    if (!listener.IsOpen() ||
        bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == SOCKET_ERROR ||
        listen(listener.Get(), SOMAXCONN) == SOCKET_ERROR ||
        ioctlsocket(listener.Get(), FIONBIO, &on) == SOCKET_ERROR ||
        getsockname(listener.Get(), reinterpret_cast<sockaddr*>(&address), &length) == SOCKET_ERROR) {
        ThrowLastWinsockError("cannot listen on port " + std::to_string(port));
    }
    listeners_.push_back({name, std::move(listener)});
    return ntohs(address.sin_port);
}

void HttpServer::Serve() {
    while (!StopRequested())
        ServeReady();
}

/// One round: waits for work for at most the poll interval and does it.
void HttpServer::ServeReady() {
    fd_set readable;
    fd_set writable;
    FD_ZERO(&readable);
    FD_ZERO(&writable);
    // New connections wait in the listeners' queues while the sets are full.
    if (connections_.size() + listeners_.size() < FD_SETSIZE) {
        for (const Listener& listener : listeners_)
            FD_SET(listener.socket.Get(), &readable);
    }
    for (const Connection& connection : connections_) {
        FD_SET(connection.socket.Get(), connection.answer.empty() ? &readable : &writable);
    }
    timeval limit = {0, kStopPollMicroseconds};
    const int ready = select(0, &readable, &writable, nullptr, &limit);
    if (ready == SOCKET_ERROR) ThrowLastWinsockError("cannot wait for connections");
    if (ready == 0) return;

    for (Connection& connection : connections_) {
        if (FD_ISSET(connection.socket.Get(), &readable)) Receive(&connection);
        if (FD_ISSET(connection.socket.Get(), &writable)) Send(&connection);
    }
    connections_.erase(std::remove_if(connections_.begin(), connections_.end(),
                                      [](const Connection& connection) { return connection.done; }),
                       connections_.end());
    for (const Listener& listener : listeners_) {
        if (FD_ISSET(listener.socket.Get(), &readable)) Accept(listener);
    }
}

void HttpServer::Accept(const Listener& listener) {
    UniqueSocket accepted(accept(listener.socket.Get(), nullptr, nullptr));
    u_long on = 1;
    if (!accepted.IsOpen() || ioctlsocket(accepted.Get(), FIONBIO, &on) == SOCKET_ERROR) return;
    connections_.push_back({&listener, std::move(accepted), {}, {}});
}

void HttpServer::Receive(Connection* connection) {
    char buffer[4096];
    const int count = recv(connection->socket.Get(), buffer, sizeof(buffer), 0);
    if (count == SOCKET_ERROR && WSAGetLastError() == WSAEWOULDBLOCK) return;
    if (count <= 0 || connection->request.size() > kMaxRequestBytes) {
        connection->done = true;
        return;
    }
    connection->request.append(buffer, static_cast<std::size_t>(count));
    if (connection->request.find("\r\n\r\n") != std::string::npos) {
        connection->answer = MakeAnswer(connection->listener->name, connection->request);
        Send(connection);
    }
}

void HttpServer::Send(Connection* connection) {
    const std::string& answer = connection->answer;
    const int count = send(connection->socket.Get(), answer.data() + connection->sent,
                           static_cast<int>(answer.size() - connection->sent), 0);
    if (count == SOCKET_ERROR) {
        connection->done = WSAGetLastError() != WSAEWOULDBLOCK;
        return;
    }
    connection->sent += static_cast<std::size_t>(count);
    if (connection->sent == answer.size()) {
        shutdown(connection->socket.Get(), SD_SEND);
        connection->done = true;
    }
}
