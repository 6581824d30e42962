// TCP on the loopback interface for the other side of a test, on the machine's own sockets: nothing of it
// passes through Winsock or shows in its counts. The seam keeps the system's socket headers out of every
// other file. A stream is used by one thread at a time, but for Interrupt, which any thread may call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>

class LoopbackStream {
  public:
    explicit LoopbackStream(int descriptor = -1) : descriptor_(descriptor) {}
    ~LoopbackStream();
    LoopbackStream(LoopbackStream&& other) noexcept : descriptor_(other.descriptor_) {
        other.descriptor_ = -1;
    }
    LoopbackStream(const LoopbackStream&) = delete;
    LoopbackStream& operator=(const LoopbackStream&) = delete;
    LoopbackStream& operator=(LoopbackStream&& other) noexcept;

    /// Exactly `size` bytes; false at the end of the connection.
    bool ReadExactly(void* destination, std::size_t size);

    /// Up to `size` bytes; 0 at the end of the connection.
    std::size_t ReadSome(void* destination, std::size_t size);

    bool WriteAll(const void* source, std::size_t size);

    /// Wakes the thread that reads or writes: both then fail.
    void Interrupt();

    /// Wakes the thread that reads, as at an end. Any thread may call.
    void StopReading();

    /// The peer sees a reset instead of an orderly end.
    void ResetPeer();

  private:
    std::mutex resetting_;  // a reset may end the descriptor while another thread interrupts it
    int descriptor_;
};

class LoopbackListener {
  public:
    /// Listens on 127.0.0.1 and a port that the kernel chooses.
    explicit LoopbackListener(int backlog = 64);
    ~LoopbackListener();
    LoopbackListener(const LoopbackListener&) = delete;
    LoopbackListener& operator=(const LoopbackListener&) = delete;

    std::uint16_t Port() const { return port_; }

    /// The next connection; false once interrupted.
    bool Accept(LoopbackStream& stream);

    /// Whether a connection has arrived that nobody has accepted.
    bool HasConnection() const;

    void Interrupt();

  private:
    std::uint16_t port_ = 0;
    int descriptor_;
};

/// A loopback port on which nobody listens: bound, so that nobody else gets it, until destroyed.
class ClosedPort {
  public:
    ClosedPort();
    ~ClosedPort();
    ClosedPort(const ClosedPort&) = delete;
    ClosedPort& operator=(const ClosedPort&) = delete;
    std::uint16_t Port() const { return port_; }

  private:
    std::uint16_t port_ = 0;
    int descriptor_;
};
