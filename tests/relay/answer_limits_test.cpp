// An analyzer that answers late, never, in pieces, or nonsense: how long a connect waits for it, and which
// frames it takes for its answer. The setting refuses connects without an answer, so that the result tells.
#include <winsock2.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/testing/clock.h"
#include "tests/support/connect_fixture.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

class AnswerLimits : public ConnectFixture {
  protected:
    void SetUp() override {
        ConnectFixture::SetUp();
        SetRegistryValue("StopActivityOnFailConnect", 1);
    }

    static Bytes Answer(std::uint32_t requestId, std::uint32_t action = 0) {
        ScriptedAnswer answer;
        answer.requestId = requestId;
        answer.action = action;
        return AnswerFrame(answer);
    }

    static Bytes WithWord(Bytes frame, std::size_t offset, std::uint32_t word) {
        std::memcpy(frame.data() + offset, &word, sizeof(word));
        return frame;
    }
};

TEST_F(AnswerLimits, SilenceEndsWithTheSixthWait) {
    analyzer_.SetScript([](const SeenRequest&, AnalyzerConnection&) {});
    StartWinsock();
    const SOCKET s = StreamSocket();
    {
        const platform::ScopedClockRate fast(200);
        const DWORD begin = GetTickCount();
        EXPECT_EQ(ConnectToPublic(s), WSAECONNREFUSED);
        EXPECT_GE(GetTickCount() - begin, 18000u);
    }
    EXPECT_EQ(CountDebugLines("Exiting recv using socket. Buffer incomplete. Elapsed: 6; error = 0"), 1u);
    EXPECT_TRUE(analyzer_.WaitForEnded(1)) << "the channel is closed";
    EXPECT_EQ(closesocket(s), 0);
}

TEST_F(AnswerLimits, ADrippingAnalyzerHoldsAConnectForAMinuteAtMost) {
    // The script may still look at it when the test is over.
    const auto connecting = std::make_shared<std::atomic<bool>>(true);
    analyzer_.SetScript([connecting](const SeenRequest& request, AnalyzerConnection& connection) {
        std::uint64_t seenWaits = 0;
        for (const std::uint8_t byte : Answer(request.messageId)) {
            // One byte for each wait: more would let a connect that is short of processor time have the whole
            // answer in one wait.
            while (*connecting && platform::CountBegunTimedWaits() == seenWaits)
                std::this_thread::yield();
            seenWaits = platform::CountBegunTimedWaits();
            if (!*connecting || !connection.Send({byte})) return;
            platform::AdvanceClock(2900);
        }
    });
    StartWinsock();
    const platform::ScopedClockRate stopped(0);
    const DWORD begin = GetTickCount();
    EXPECT_EQ(ConnectOnce(), WSAECONNREFUSED);
    *connecting = false;
    EXPECT_GE(GetTickCount() - begin, 60000u);
}

TEST_F(AnswerLimits, UnreadableAnswersAreNoAnswers) {
    const Bytes good = Answer(0);
    const struct {
        const char* what;
        Bytes bytes;
        bool reset;
    } cases[] = {
        {"the connection ends", {}, false},
        {"the connection is reset", {}, true},
        {"noise", Bytes(200, 0x5a), false},
        {"a frame of 2 GiB", WithWord(good, 0, 0x7fffffff), false},
        {"a frame of negative length", WithWord(good, 0, 0xffffffff), false},
        {"a frame shorter than its header", WithWord(good, 0, 7), false},
        {"fields beyond the frame", WithWord(good, 4, 157), false},
        {"fields inside the header", WithWord(good, 4, 4), false},
        {"fields that begin too late to be complete", WithWord(good, 4, 9), false},
        {"half an answer, then the end", Bytes(good.begin(), good.begin() + 80), false},
    };
    StartWinsock();
    std::size_t ended = 0;
    for (const auto& row : cases) {
        analyzer_.SetScript([&row](const SeenRequest&, AnalyzerConnection& connection) {
            if (!row.bytes.empty()) connection.Send(row.bytes);
            row.reset ? connection.Reset() : connection.Close();
        });
        EXPECT_EQ(ConnectOnce(), WSAECONNREFUSED) << row.what;
        EXPECT_TRUE(analyzer_.WaitForEnded(++ended)) << row.what;
    }
}

}  // namespace
