// The client's socket work, each step a function that returns 0 or a Winsock error.
#include "apps/client/exchange.h"

#include "apps/client/answer_reader.h"
#include "apps/shared/endpoint.h"
#include "apps/shared/winsock_session.h"

#include <windows.h>

#include <algorithm>

namespace {

enum class Direction { Read, Write };

/// Waits until the socket is ready or, for a pending connect, has failed. WSAETIMEDOUT when nothing happened
/// in time.
int WaitFor(SOCKET socket, Direction direction, DWORD milliseconds) {
    fd_set ready;
    fd_set failed;
    FD_ZERO(&ready);
    FD_ZERO(&failed);
    FD_SET(socket, &ready);
    FD_SET(socket, &failed);
    timeval limit = {};
    limit.tv_sec = static_cast<decltype(limit.tv_sec)>(milliseconds / 1000);
    limit.tv_usec = static_cast<decltype(limit.tv_usec)>(milliseconds % 1000 * 1000);
    const bool reading = direction == Direction::Read;
    const int count = select(0, reading ? &ready : nullptr, reading ? nullptr : &ready,
                             reading ? nullptr : &failed, &limit);
    if (count == SOCKET_ERROR) return WSAGetLastError();
    return count == 0 ? WSAETIMEDOUT : 0;
}

/// The outcome of a connect that was pending and has ended.
int PendingError(SOCKET socket) {
    int error = 0;
    int length = sizeof(error);
    if (getsockopt(socket, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &length) == SOCKET_ERROR) {
        return WSAGetLastError();
    }
    return error;
}

int Connect(SOCKET socket, const sockaddr_in& server, const ExchangeOptions& options) {
    if (options.nonblocking) {
        u_long on = 1;
        if (ioctlsocket(socket, FIONBIO, &on) == SOCKET_ERROR) return WSAGetLastError();
    }
    if (connect(socket, reinterpret_cast<const sockaddr*>(&server), sizeof(server)) == 0) return 0;
    const int error = WSAGetLastError();
    if (!options.nonblocking || error != WSAEWOULDBLOCK) return error;
    const int waited = WaitFor(socket, Direction::Write, options.timeoutMilliseconds);
    return waited != 0 ? waited : PendingError(socket);
}

int SendAll(SOCKET socket, const std::string& data, const ExchangeOptions& options) {
    std::size_t sent = 0;
    while (sent < data.size()) {
        const int count = send(socket, data.data() + sent, static_cast<int>(data.size() - sent), 0);
        if (count != SOCKET_ERROR) {
            sent += static_cast<std::size_t>(count);
            continue;
        }
        int error = WSAGetLastError();
        if (error == WSAEWOULDBLOCK) error = WaitFor(socket, Direction::Write, options.timeoutMilliseconds);
        if (error != 0) return error;
    }
    return 0;
}

/// Takes what arrives until the server closes the connection, or as much as is wanted.
int ReceiveAnswer(SOCKET socket, AnswerReader* answer, const ExchangeOptions& options) {
    for (;;) {
        const int waited = WaitFor(socket, Direction::Read, options.timeoutMilliseconds);
        if (waited != 0) return waited;
        char buffer[16384];
        const int count = recv(socket, buffer, sizeof(buffer), 0);
        if (count == 0) return 0;
        if (count > 0) {
            answer->Take(buffer, static_cast<std::size_t>(count));
            if (options.closeAfterBytes != 0 && answer->Bytes() >= options.closeAfterBytes) return 0;
        } else if (WSAGetLastError() != WSAEWOULDBLOCK) {
            return WSAGetLastError();
        }
    }
}

int BindAnywhere(SOCKET socket) {
    sockaddr_in any = {};
    any.sin_family = AF_INET;
    return bind(socket, reinterpret_cast<const sockaddr*>(&any), sizeof(any)) == 0 ? 0 : WSAGetLastError();
}

void ExchangeStream(SOCKET socket, const sockaddr_in& server, const std::string& path,
                    const ExchangeOptions& options, ExchangeResult* result) {
    if (options.bind && !Passed("bind", BindAnywhere(socket), result)) return;
    if (!Passed("connect", Connect(socket, server, options), result)) return;

    result->peer = PeerOf(socket);
    const std::string request = "GET " + path + " HTTP/1.0\r\nHost: " + FormatEndpoint(server) + "\r\n\r\n";
    if (!options.greeting && !Passed("send", SendAll(socket, request, options), result)) return;

    // Not shut down: where a relay is between, the end of the sending is the end of the connection.
    AnswerReader answer;
    const int error = ReceiveAnswer(socket, &answer, options);
    answer.Finish(result);
    Passed("receive", error, result);
}

void ExchangeDatagram(SOCKET socket, const sockaddr_in& server, const std::string& path,
                      const ExchangeOptions& options, ExchangeResult* result) {
    const int sent = sendto(socket, path.data(), static_cast<int>(path.size()), 0,
                            reinterpret_cast<const sockaddr*>(&server), sizeof(server));
    if (!Passed("send", sent == SOCKET_ERROR ? WSAGetLastError() : 0, result)) return;
    if (!Passed("receive", WaitFor(socket, Direction::Read, options.timeoutMilliseconds), result)) return;

    char buffer[2048];
    sockaddr_in peer = {};
    int length = sizeof(peer);
    const int count =
        recvfrom(socket, buffer, sizeof(buffer), 0, reinterpret_cast<sockaddr*>(&peer), &length);
    if (!Passed("receive", count == SOCKET_ERROR ? WSAGetLastError() : 0, result)) return;
    result->peer = FormatEndpoint(peer);
    result->bytes = static_cast<std::size_t>(count);
    result->firstBodyLine = std::string(buffer, result->bytes);
    result->firstBodyLine.resize(std::min(result->bytes, result->firstBodyLine.find_first_of("\r\n")));
}

}  // namespace

ExchangeResult Exchange(const sockaddr_in& server, const std::string& path, const ExchangeOptions& options) {
    ExchangeResult result;
    const DWORD begin = GetTickCount();
    const UniqueSocket socketHandle(options.datagram ? socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP)
                                                     : socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
    if (Passed("socket", socketHandle.IsOpen() ? 0 : WSAGetLastError(), &result)) {
        const auto exchange = options.datagram ? ExchangeDatagram : ExchangeStream;
        exchange(socketHandle.Get(), server, path, options, &result);
    }
    result.elapsedMilliseconds = GetTickCount() - begin;
    return result;
}
