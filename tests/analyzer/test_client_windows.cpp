// See test_client.h.
#include "tests/analyzer/test_client.h"

#include <winsock2.h>

namespace {

SOCKET Winsocket(std::intptr_t socket) {
    return static_cast<SOCKET>(socket);
}

std::intptr_t MakeSocket() {
    static const bool started = [] {
        WSADATA data;
        return WSAStartup(MAKEWORD(2, 2), &data) == 0;
    }();
    return started ? static_cast<std::intptr_t>(socket(AF_INET, SOCK_STREAM, 0)) : -1;
}

void SetPatience(std::intptr_t socket, int option, int milliseconds) {
    const DWORD value = static_cast<DWORD>(milliseconds);
    setsockopt(Winsocket(socket), SOL_SOCKET, option, reinterpret_cast<const char*>(&value), sizeof(value));
}

}  // namespace

TestClient::TestClient(std::uint16_t port) : socket_(MakeSocket()) {
    SetPatience(socket_, SO_RCVTIMEO, 20000);
    SetPatience(socket_, SO_SNDTIMEO, 20000);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connect(Winsocket(socket_), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

TestClient::~TestClient() {
    closesocket(Winsocket(socket_));
}

std::uint16_t TestClient::Port() const {
    sockaddr_in address{};
    int length = sizeof(address);
    getsockname(Winsocket(socket_), reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

void TestClient::SetSendPatience(int milliseconds) {
    SetPatience(socket_, SO_SNDTIMEO, milliseconds);
}

bool TestClient::Send(const std::vector<unsigned char>& bytes, std::size_t from, std::size_t to) {
    if (to > bytes.size()) to = bytes.size();
    while (from < to) {
        const int sent = send(Winsocket(socket_), reinterpret_cast<const char*>(bytes.data()) + from,
                              static_cast<int>(to - from), 0);
        if (sent <= 0) return false;
        from += static_cast<std::size_t>(sent);
    }
    return true;
}

void TestClient::EndSending() {
    shutdown(Winsocket(socket_), SD_SEND);
}

std::vector<unsigned char> TestClient::Receive(std::size_t count) {
    std::vector<unsigned char> bytes(count);
    std::size_t received = 0;
    while (received < count) {
        const int part = recv(Winsocket(socket_), reinterpret_cast<char*>(bytes.data()) + received,
                              static_cast<int>(count - received), 0);
        if (part <= 0) break;
        received += static_cast<std::size_t>(part);
    }
    bytes.resize(received);
    return bytes;
}

bool TestClient::SeesEnd() {
    char byte = 0;
    const int received = recv(Winsocket(socket_), &byte, 1, 0);
    return received == 0 || (received < 0 && WSAGetLastError() == WSAECONNRESET);
}
