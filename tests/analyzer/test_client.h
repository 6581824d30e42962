// A client of the analyzer on the system's own sockets, whose headers do not mix with those that messages
// need. Everything it waits for has a deadline, after which the call fails. One definition per target:
// test_client_posix.cpp, test_client_windows.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class TestClient {
  public:
    /// Connects to 127.0.0.1:`port`.
    explicit TestClient(std::uint16_t port);
    TestClient(const TestClient&) = delete;
    TestClient& operator=(const TestClient&) = delete;
    ~TestClient();

    /// Its own port.
    std::uint16_t Port() const;

    /// How long a send may wait from now on.
    void SetSendPatience(int milliseconds);

    bool Send(const std::vector<unsigned char>& bytes, std::size_t from = 0, std::size_t to = SIZE_MAX);

    void EndSending();

    /// Fewer bytes when the connection ends before.
    std::vector<unsigned char> Receive(std::size_t count);

    /// Whether the server ends the connection (without a further byte).
    bool SeesEnd();

  private:
    std::intptr_t socket_;
};
