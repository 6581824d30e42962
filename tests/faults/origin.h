// The server that the sweeps' connections lead to: one thread on a loopback port that the kernel chose,
// outside Winsock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <thread>

#include "tests/support/loopback_stream.h"

/// An origin that sends everything back, one connection after the other.
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
            char bytes[16384];
            std::size_t count = 0;
            do {
                count = stream.ReadSome(bytes, sizeof(bytes));
            } while (count > 0 && stream.WriteAll(bytes, count));
        }
    }

    LoopbackListener listener_;
    std::thread thread_;
};
