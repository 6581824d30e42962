// A split connection under test: the application's socket, the origin server behind the public address, and
// an analyzer that inspects as the test says.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/support/connect_fixture.h"

/// What the analyzer does with the bytes that come to it.
enum class Inspector {
    kPassOn,  ///< sends everything back toward the other side
    kChange,  ///< passes on with small letters made capital ones
    kServe,   ///< answers the client in capital letters
    kHold,    ///< nothing
};

class SplitFixture : public ConnectFixture {
  public:
    static constexpr std::uint32_t kForward = 0x08;
    static constexpr std::uint32_t kInspect = 0x04;
    static constexpr std::uint32_t kServe = 0x20;

  protected:
    /// A script that answers connects with "allow" and `flags`, treats data as `inspector` says, and mirrors
    /// the end of a side by closing the other.
    static ScriptedAnalyzer::Script Splitting(std::uint32_t flags, Inspector inspector = Inspector::kPassOn);

    void SetUp() override {
        ConnectFixture::SetUp();
        analyzer_.SetScript(Splitting(kForward));
    }

    /// A connected application's socket, and the origin's end of its connection in `server`.
    SOCKET ConnectSplit(LoopbackStream& server);

    static bool SendAll(SOCKET s, const std::string& text);
    /// Exactly `size` bytes, or what came before the end, or before the error behind it in brackets.
    static std::string ReceiveText(SOCKET s, std::size_t size);
    static std::string ReadText(LoopbackStream& stream, std::size_t size);
};
