// The server that the sweeps' connections lead to: one thread on a loopback port that the kernel chose,
// outside Winsock.
#pragma once

#include <cstdint>
#include <thread>

#include "tests/support/loopback_stream.h"

/// An origin that answers each connection's first bytes with four bytes, then waits for its end.
class Origin {
  public:
    Origin() : thread_([this] { Serve(); }) {}
    ~Origin() {
        listener_.Interrupt();
        thread_.join();
    }
    Origin(const Origin&) = delete;
    Origin& operator=(const Origin&) = delete;

    std::uint16_t Port() const { return listener_.Port(); }

  private:
    void Serve() {
        LoopbackStream stream;
        while (listener_.Accept(stream)) {
            char bytes[16];
            if (stream.ReadSome(bytes, sizeof(bytes)) > 0 && stream.WriteAll("pong", 4)) {
                stream.ReadSome(bytes, sizeof(bytes));
            }
        }
    }

    LoopbackListener listener_;
    std::thread thread_;
};
