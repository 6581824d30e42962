// What is made of damaged or hostile frames, and of texts that are too long for one.
#include "messages/analyzer_messages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "messages/message_limits.h"
#include "tests/messages/frame_tools.h"
#include "tests/support/seeded_random.h"

namespace {

Bytes GoodRequest() {
    LSPAnalyzerMessage request;
    request.UserName = "DEMO\\alice";
    request.WindowTitle = "Main window";
    request.ImageSigner = "Demo Signer";
    request.Operation = OpConnect;
    return FrameOf(request);
}

template <typename Message>
bool Parses(Bytes frame, std::size_t pieceSize = 0xFFFFFFFF) {
    Message message;
    Feed(message, frame, pieceSize);
    return message.Deserialize();
}

TEST(AnalyzerMessages, TextsAreCutAtTheLimitAndAtZeroBytes) {
    LSPAnalyzerMessage request;
    request.UserName = std::string(2048, 'u');
    request.WindowTitle = std::string(3000, 'w');
    request.ImageSigner = std::string("ab\0cd", 5);
    Bytes frame = FrameOf(request);
    ASSERT_EQ(frame.size(), 8 + 320 + 2048 + 2048 + 5);
    LSPAnalyzerMessage read;
    Feed(read, frame, 100);
    ASSERT_TRUE(read.Deserialize());
    EXPECT_EQ(read.UserName, request.UserName);
    EXPECT_EQ(read.WindowTitle, std::string(2048, 'w'));
    EXPECT_EQ(read.ImageSigner, "ab");
    EXPECT_EQ(read.MessageType, 1u) << "all five bytes of the text with the zero were passed";

    constexpr std::size_t userLength = 8 + 272;
    for (std::uint32_t length : {0x7fffffffu, 0xffffffffu}) {
        Bytes lying = frame;
        SetWord(lying, userLength, length);
        EXPECT_FALSE(Parses<LSPAnalyzerMessage>(lying)) << length;
    }
    // One byte more than may be, in a frame that is right in everything else.
    frame.insert(frame.begin() + userLength + 4, 'u');
    SetWord(frame, userLength, 2049);
    SetWord(frame, 0, static_cast<std::uint32_t>(frame.size()));
    EXPECT_FALSE(Parses<LSPAnalyzerMessage>(frame));
}

TEST(AnalyzerMessages, ATextIsCutBetweenCharacters) {
    const auto after = [](std::size_t count, const char* tail) { return std::string(count, 'w') + tail; };
    const struct {
        std::string text;
        std::size_t sent;
    } cases[] = {
        {after(2046, "\u00e9"), 2048},
        {after(2047, "\u00e9"), 2047},
        {after(2045, "\u20ac"), 2048},
        {after(2046, "\u20ac"), 2046},
        {after(2047, "\u20ac"), 2047},
        {after(2044, "\U0001f600"), 2048},
        {after(2045, "\U0001f600"), 2045},
        {after(2047, "\U0001f600"), 2047},
        // No UTF-8: a text that fits stays whole, and one that is cut keeps what makes no character.
        {after(2047, "\xe9"), 2048},
        {after(2040, "\x83\x83\x83\x83\x83\x83\x83\x83\x83"), 2048},
        {after(2045, "\xe9xyz"), 2048},
    };
    for (const auto& row : cases) {
        LSPAnalyzerMessage request;
        request.WindowTitle = row.text;
        Bytes frame = FrameOf(request);
        EXPECT_EQ(frame.size(), 328 + row.sent);
        LSPAnalyzerMessage read;
        Feed(read, frame);
        ASSERT_TRUE(read.Deserialize());
        EXPECT_EQ(read.WindowTitle, row.text.substr(0, row.sent));
        EXPECT_EQ(read.MessageType, 1u);
    }
}

TEST(AnalyzerMessages, EveryTruncationIsRefused) {
    const Bytes frames[] = {GoodRequest(), ResponseFrame(77), ResponseFrame(77, 20)};
    for (const Bytes& good : frames) {
        const bool isRequest = &good == frames;
        const auto parses = isRequest ? Parses<LSPAnalyzerMessage> : Parses<LSPAnalyzerMessageResponse>;
        ASSERT_TRUE(parses(good, 3));
        for (std::size_t length = 0; length < good.size(); ++length) {
            Bytes cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(length));
            EXPECT_FALSE(parses(cut, 16)) << length;
            if (length < 8) continue;
            // Also when its length word agrees with what is there.
            SetWord(cut, 0, static_cast<std::uint32_t>(length));
            EXPECT_FALSE(parses(cut, 16)) << length;
            // What is missing must not be taken from the frame behind it.
            cut.insert(cut.end(), good.begin(), good.end());
            EXPECT_FALSE(parses(cut, 16)) << length;
        }
    }
}

TEST(AnalyzerMessages, AFrameReadsNothingOfTheNextOne) {
    Bytes two = GoodRequest();
    const std::size_t length = two.size();
    const Bytes next = GoodRequest();
    two.insert(two.end(), next.begin(), next.end());
    ASSERT_TRUE(Parses<LSPAnalyzerMessage>(two, 50));

    constexpr std::size_t fieldsOffset = 4;
    constexpr std::size_t userLength = 8 + 272;
    const struct {
        std::size_t word;
        std::uint32_t value;
    } lies[] = {
        {userLength, 200}, {userLength, 300}, {fieldsOffset, static_cast<std::uint32_t>(length) - 10}};
    for (const auto& lie : lies) {
        SCOPED_TRACE(lie.value);
        Bytes frames = two;
        SetWord(frames, lie.word, lie.value);
        LSPAnalyzerMessage request;
        Feed(request, frames, 50);
        EXPECT_FALSE(request.Deserialize());
        EXPECT_EQ(request.DataLength, -1);
        EXPECT_EQ(request.GetExcessLength(), static_cast<std::int32_t>(next.size()));
        EXPECT_EQ(ChainOf(request), frames) << "the next frame is still there";
    }

    // A frame whose data section makes no sense has no more data than it is long.
    Bytes answers = ResponseFrame(1);
    const Bytes second = ResponseFrame(2);
    answers.insert(answers.end(), second.begin(), second.end());
    SetWord(answers, fieldsOffset, 0);
    LSPAnalyzerMessageResponse response;
    Feed(response, answers, 50);
    ASSERT_TRUE(response.Deserialize());
    PieceArray data;
    ASSERT_TRUE(response.GetDataBuffers(data.pieces, data.count, false));
    EXPECT_EQ(data.Flat().size(), second.size() - 8);
}

TEST(AnalyzerMessages, OneAnswerTellsWhatTheStartOfAChainIs) {
    const struct {
        std::uint32_t announced;
        std::size_t there;
        FrameState state;
    } cases[] = {
        {7, 3, FrameState::kIncomplete},
        {0, 4, FrameState::kUnreadable},
        {7, 4, FrameState::kUnreadable},
        {7, 100, FrameState::kUnreadable},
        {8, 4, FrameState::kIncomplete},
        {8, 8, FrameState::kWhole},
        {156, 155, FrameState::kIncomplete},
        {156, 156, FrameState::kWhole},
        {156, 200, FrameState::kWhole},
        {kMaxFrameLength, 8, FrameState::kIncomplete},
        {kMaxFrameLength + 1, 8, FrameState::kUnreadable},
        {0x7FFFFFFF, 8, FrameState::kUnreadable},
        {0x80000000, 8, FrameState::kUnreadable},
        {0xFFFFFFF0, 8, FrameState::kUnreadable},
        {0xFFFFFFFF, 8, FrameState::kUnreadable},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(std::to_string(row.announced) + ", " + std::to_string(row.there) + " bytes there");
        Bytes chain(std::max<std::size_t>(row.there, 4));
        SetWord(chain, 0, row.announced);
        chain.resize(row.there);
        LSPAnalyzerMessageResponse response;
        Feed(response, chain, 3);
        EXPECT_EQ(response.GetFrameState(), row.state);
        EXPECT_EQ(response.Deserialize(), row.state == FrameState::kWhole && row.announced == 156);
    }
}

TEST(AnalyzerMessages, LyingLengthWords) {
    const Bytes good = ResponseFrame(77, 20);
    const struct {
        const char* name;
        std::size_t word;
        std::uint32_t value;
        bool parses;
    } cases[] = {
        {"total one too large", 0, 177, false},
        {"total beyond the limit", 0, kMaxFrameLength + 1, false},
        {"total 0x7fffffff", 0, 0x7fffffff, false},
        {"total negative", 0, 0xffffffff, false},
        {"total smaller than the fields offset", 0, 27, false},
        {"total 0", 0, 0, false},
        {"fields beyond the total", 4, 177, false},
        {"fields at the end", 4, 176, false},
        {"fields offset negative", 4, 0xfffffff8, false},
        {"fields at 0", 4, 0, true},
        {"fields at 7", 4, 7, true},
    };
    for (const auto& lie : cases) {
        SCOPED_TRACE(lie.name);
        Bytes frame = good;
        SetWord(frame, lie.word, lie.value);
        LSPAnalyzerMessageResponse response;
        Feed(response, frame, 30);
        ASSERT_EQ(response.Deserialize(), lie.parses);
        if (!lie.parses) continue;
        EXPECT_EQ(response.DataLength, static_cast<std::int32_t>(lie.value) - 8);
        PieceArray data;
        ASSERT_TRUE(response.GetDataBuffers(data.pieces, data.count, false));
        EXPECT_EQ(data.Flat().size(), 168u) << "a negative length covers all bytes after the header";
    }
}

/// Whatever is accepted from a damaged frame can be said again and reads the same.
TEST(AnalyzerMessages, DamagedFramesNeverDoMoreThanFail) {
    SeededRandom random;
    SCOPED_TRACE("QX_SEED=" + std::to_string(random.Seed()));
    const Bytes good = GoodRequest();
    int accepted = 0;
    for (int round = 0; round < 5000; ++round) {
        Bytes frame = good;
        for (std::uint32_t change = random.Below(4) + 1; change != 0; --change) {
            frame[random.Below(static_cast<std::uint32_t>(frame.size()))] = random.Byte();
        }
        frame.resize(frame.size() - random.Below(2) * random.Below(200));
        LSPAnalyzerMessage read;
        Feed(read, frame, 1 + random.Below(400));
        read.GetExcessLength();
        PieceArray data;
        const bool parsed = read.Deserialize();
        read.GetDataBuffers(data.pieces, data.count, false);
        if (!parsed) continue;
        ++accepted;
        LSPAnalyzerMessage copy;
        copy.UserName = read.UserName;
        copy.Operation = read.Operation;
        Bytes again = FrameOf(copy);
        LSPAnalyzerMessage reread;
        Feed(reread, again);
        ASSERT_TRUE(reread.Deserialize());
        ASSERT_EQ(reread.UserName, read.UserName);
        ASSERT_EQ(reread.Operation, read.Operation);
    }
    EXPECT_GT(accepted, 0);
}

}  // namespace
