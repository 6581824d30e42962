// A port of 127.0.0.1 at which nobody listens and which nobody else can take meanwhile.
#pragma once

class ClosedPort {
  public:
    /// Throws std::runtime_error.
    ClosedPort();
    ~ClosedPort();
    ClosedPort(const ClosedPort&) = delete;
    ClosedPort& operator=(const ClosedPort&) = delete;

    unsigned short Number() const { return number_; }

  private:
    int socket_;
    unsigned short number_ = 0;
};
