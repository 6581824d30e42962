// See test_client.h.
#include "tests/analyzer/test_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>

namespace {

int Descriptor(std::intptr_t socket) {
    return static_cast<int>(socket);
}

}  // namespace

TestClient::TestClient(std::uint16_t port) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const timeval deadline{20, 0};
    ::setsockopt(Descriptor(socket_), SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof(deadline));
    ::setsockopt(Descriptor(socket_), SOL_SOCKET, SO_SNDTIMEO, &deadline, sizeof(deadline));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::connect(Descriptor(socket_), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

TestClient::~TestClient() {
    ::close(Descriptor(socket_));
}

std::uint16_t TestClient::Port() const {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    ::getsockname(Descriptor(socket_), reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

void TestClient::SetSendPatience(int milliseconds) {
    const timeval patience{milliseconds / 1000, milliseconds % 1000 * 1000};
    ::setsockopt(Descriptor(socket_), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
}

bool TestClient::Send(const std::vector<unsigned char>& bytes, std::size_t from, std::size_t to) {
    if (to > bytes.size()) to = bytes.size();
    while (from < to) {
        const ssize_t sent = ::send(Descriptor(socket_), bytes.data() + from, to - from, MSG_NOSIGNAL);
        if (sent <= 0) return false;
        from += static_cast<std::size_t>(sent);
    }
    return true;
}

void TestClient::EndSending() {
    ::shutdown(Descriptor(socket_), SHUT_WR);
}

std::vector<unsigned char> TestClient::Receive(std::size_t count) {
    std::vector<unsigned char> bytes(count);
    std::size_t received = 0;
    while (received < count) {
        const ssize_t part = ::recv(Descriptor(socket_), bytes.data() + received, count - received, 0);
        if (part <= 0) break;
        received += static_cast<std::size_t>(part);
    }
    bytes.resize(received);
    return bytes;
}

bool TestClient::SeesEnd() {
    unsigned char byte = 0;
    const ssize_t received = ::recv(Descriptor(socket_), &byte, 1, 0);
    return received == 0 || (received < 0 && errno == ECONNRESET);
}
