// A client of the analyzer on POSIX sockets; not to be mixed with the Windows headers. Everything it waits
// for has a deadline, after which the call fails.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <vector>

class TestClient {
  public:
    explicit TestClient(std::uint16_t port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const timeval deadline{20, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof(deadline));
        ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &deadline, sizeof(deadline));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    }
    TestClient(const TestClient&) = delete;
    TestClient& operator=(const TestClient&) = delete;
    ~TestClient() { ::close(fd_); }

    bool Connected() const { return connected_; }
    int Descriptor() const { return fd_; }

    bool Send(const std::vector<unsigned char>& bytes, std::size_t from = 0, std::size_t to = SIZE_MAX) {
        if (to > bytes.size()) to = bytes.size();
        while (from < to) {
            const ssize_t sent = ::send(fd_, bytes.data() + from, to - from, MSG_NOSIGNAL);
            if (sent <= 0) return false;
            from += static_cast<std::size_t>(sent);
        }
        return true;
    }

    void EndSending() { ::shutdown(fd_, SHUT_WR); }

    /// Fewer bytes when the connection ends before.
    std::vector<unsigned char> Receive(std::size_t count) {
        std::vector<unsigned char> bytes(count);
        std::size_t received = 0;
        while (received < count) {
            const ssize_t part = ::recv(fd_, bytes.data() + received, count - received, 0);
            if (part <= 0) break;
            received += static_cast<std::size_t>(part);
        }
        bytes.resize(received);
        return bytes;
    }

    /// Whether the server ends the connection (without a further byte).
    bool SeesEnd() {
        unsigned char byte = 0;
        const ssize_t received = ::recv(fd_, &byte, 1, 0);
        return received == 0 || (received < 0 && errno == ECONNRESET);
    }

  private:
    int fd_;
    bool connected_ = false;
};
