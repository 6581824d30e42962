// Sends and receives on a socket whose connection the analyzer has allowed with some flags, and what it was
// told of them, as lines of text.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tests/relay/split_fixture.h"

class TrafficFixture : public SplitFixture {
  protected:
    static constexpr std::uint32_t kCount = 0x01;
    static constexpr std::uint32_t kReport = 0x02;

    /// Allows connects with `flags`; refuses the operations of `refused` and answers nothing of `silent`.
    struct Rules {
        std::uint32_t flags = 0;
        std::vector<std::uint32_t> refused = {};
        std::vector<std::uint32_t> silent = {};
    };
    void Answer(Rules rules);

    /// "s:text" is sent by the application, "r:text" by the server and received by the application.
    void Play(SOCKET s, LoopbackStream& server, const std::vector<std::string>& steps);

    /// "4 p1 s0 r3 [text]" for each report of a socket since `first`: operation, protocol, counters, data.
    /// What the relay tells by itself is left out.
    std::vector<std::string> Told(std::size_t first = 0) const;

    /// Waits until the close has been told `count` times.
    bool WaitForCloses(std::size_t count) const;
};
