// The other side of the benchmarks, and the floor they are held against, on the kernel's sockets without
// anything of ours in between. A seam: no header of the system's sockets is included here, so that it goes
// with <winsock2.h>. Every server is one thread on a loopback port that the kernel chose and ends with its
// object.
#pragma once

#include <cstdint>
#include <memory>

class LoopbackServer {
  public:
    enum class Kind {
        kSink,     ///< accepts, reads to the end, closes
        kEcho,     ///< sends every chunk of up to 64 KiB back
        kVerdict,  ///< answers each request frame with "allow"
    };

    explicit LoopbackServer(Kind kind);
    ~LoopbackServer();
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    std::uint16_t Port() const;

  private:
    struct Running;
    std::unique_ptr<Running> running_;
};

/// A destination at which the kernel answers alone: connections wait in the listener's queue, so that no
/// thread of a server is woken, at this moment or that, inside what is measured.
class ConnectionBacklog {
  public:
    /// How many connections fit until they are taken out.
    static constexpr int kRoom = 1000;

    ConnectionBacklog();
    ~ConnectionBacklog();
    ConnectionBacklog(const ConnectionBacklog&) = delete;
    ConnectionBacklog& operator=(const ConnectionBacklog&) = delete;

    std::uint16_t Port() const { return port_; }

    /// Takes out all that wait, and closes them.
    void Empty() const;

  private:
    std::uint16_t port_ = 0;  // written while listener_ is made
    const int listener_;
};

/// socket, connect, close.
void KernelConnectAndClose(std::uint16_t port);

/// What a connect with a verdict costs at the least: a connection to the analyzer made and used with the
/// system calls that the layer makes, in its order, then the connect itself, its local name, and both closes.
void KernelConnectWithVerdict(std::uint16_t analyzerPort, std::uint16_t port);
