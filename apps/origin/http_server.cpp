// The select loop of the HTTP server; see the header.
#include "apps/origin/http_server.h"

#include "apps/shared/endpoint.h"
#include "apps/shared/stop_request.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <iostream>

namespace {

constexpr std::size_t kMaxRequestBytes = 16384;

/// One line of JSON: what was asked, and how much of the answer was taken.
void Log(const std::string& server, const HttpAnswer& answer, std::uint64_t sent, bool complete) {
    const nlohmann::ordered_json line = {
        {"server", server}, {"request", answer.RequestLine()},   {"bytes", answer.BodyBytes()},
        {"sent", sent},     {"checksum", answer.BodyChecksum()}, {"complete", complete},
    };
    // A request may hold any bytes.
    std::cout << line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << std::endl;
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
        FD_SET(connection.socket.Get(), connection.answer ? &writable : &readable);
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
    if (!greeting_.empty()) {
        // Room for a line there always is.
        send(accepted.Get(), greeting_.data(), static_cast<int>(greeting_.size()), 0);
        return;
    }
    connections_.push_back({&listener, std::move(accepted), {}, {}, {}, 0, 0, false});
}

void HttpServer::Receive(Connection* connection) const {
    char buffer[4096];
    const int count = recv(connection->socket.Get(), buffer, sizeof(buffer), 0);
    if (count == SOCKET_ERROR && WSAGetLastError() == WSAEWOULDBLOCK) return;
    if (count <= 0 || connection->request.size() > kMaxRequestBytes) {
        connection->done = true;
        return;
    }
    connection->request.append(buffer, static_cast<std::size_t>(count));
    if (connection->request.find("\r\n\r\n") != std::string::npos) {
        connection->answer.emplace(connection->listener->name, connection->request);
        connection->piece = connection->answer->NextPiece();
        Send(connection);
    }
}

void HttpServer::Send(Connection* connection) const {
    while (!connection->piece.empty()) {
        const std::string& piece = connection->piece;
        const int count = send(connection->socket.Get(), piece.data() + connection->sent,
                               static_cast<int>(piece.size() - connection->sent), 0);
        if (count == SOCKET_ERROR) {
            connection->done = WSAGetLastError() != WSAEWOULDBLOCK;
            if (connection->done && log_) {
                Log(connection->listener->name, *connection->answer, connection->sentInAll, false);
            }
            return;
        }
        connection->sent += static_cast<std::size_t>(count);
        connection->sentInAll += static_cast<std::uint64_t>(count);
        if (connection->sent < piece.size()) return;
        connection->sent = 0;
        connection->piece = connection->answer->NextPiece();
    }
    shutdown(connection->socket.Get(), SD_SEND);
    connection->done = true;
    if (log_) Log(connection->listener->name, *connection->answer, connection->sentInAll, true);
}
