// What goes over the wire, byte by byte, and what is made of damaged or hostile frames.
#include "messages/analyzer_messages.h"

#include <gtest/gtest.h>

#include <string>

#include "messages/message_limits.h"
#include "tests/messages/frame_tools.h"
#include "tests/messages/seeded_random.h"

namespace {

void FillRequest(LSPAnalyzerMessage& request) {
    request.ProcessId = 4321;
    request.UserName = "DEMO\\alice";
    request.WindowTitle = "Main window";
    request.ImageSigner = "Demo Signer";
    request.LocalPort = 50000;
    std::memset(&request.LocalAddress, 0x11, sizeof(request.LocalAddress));
    request.RemotePort = 443;
    auto* remote = reinterpret_cast<sockaddr_in*>(&request.RemoteAddress);
    remote->sin_family = AF_INET;
    remote->sin_port = 0xBB01;
    const unsigned char address[] = {192, 0, 2, 1};
    std::memcpy(&remote->sin_addr, address, sizeof(address));
    request.SocketType = 1;
    request.Protocol = 0x80000000;
    request.BytesSent = 0x1122334455667788;
    request.BytesReceived = 9;
    request.Flags = kFlagReportTraffic | kFlagCountTraffic;
    request.Operation = OpConnect;
}

Bytes GoodRequest() {
    LSPAnalyzerMessage request;
    FillRequest(request);
    return FrameOf(request);
}

Bytes GoodResponse(std::uint32_t dataLength = 0) {
    LSPAnalyzerMessageResponse response;
    Bytes data(dataLength, 0x77);
    const BufferPiece piece{dataLength, data.data()};
    response.SetDataBuffers(&piece, 1, 0, false);
    response.RequestId = 77;
    response.Action = ActionRedirect;
    response.ExemptProcessId = 5;
    response.Flags = kFlagKeepFlags;
    std::memset(&response.RedirectAddress, 0x22, sizeof(response.RedirectAddress));
    return FrameOf(response);
}

template <typename Message>
bool Parses(Bytes frame, std::size_t pieceSize = 0xFFFFFFFF) {
    Message message;
    Feed(message, frame, pieceSize);
    return message.Deserialize();
}

TEST(AnalyzerMessages, RequestLayout) {
    const Bytes frame = GoodRequest();
    constexpr std::size_t u = 10;
    constexpr std::size_t w = 11;
    constexpr std::size_t s = 11;
    ASSERT_EQ(frame.size(), 8 + 320 + u + w + s);
    EXPECT_EQ(WordAt(frame, 0), frame.size());
    EXPECT_EQ(WordAt(frame, 4), 8u);
    const struct {
        std::size_t offset;
        std::uint32_t word;
    } words[] = {
        {4, 4321},
        {8, 50000},
        {12, 0x11111111},
        {136, 0x11111111},
        {140, 443},
        {144, 0x010200C0u},
        {148, 0},
        {264, 0},
        {268, 1},
        {272, u},
        {276 + u, 0x80000000},
        {280 + u, 0},
        {284 + u, 3},
        {288 + u, w},
        {292 + u + w, s},
        {296 + u + w + s, 0x55667788},
        {300 + u + w + s, 0x11223344},
        {304 + u + w + s, 9},
        {312 + u + w + s, 1},
        {316 + u + w + s, 12},
    };
    for (const auto& expected : words)
        EXPECT_EQ(WordAt(frame, 8 + expected.offset), expected.word) << expected.offset;
    EXPECT_EQ(std::memcmp(frame.data() + 8 + 276, "DEMO\\alice", u), 0);

    LSPAnalyzerMessage empty;
    EXPECT_EQ(FrameOf(empty).size(), 328u);
}

TEST(AnalyzerMessages, RequestRoundTrip) {
    for (std::size_t pieceSize : {std::size_t(1), std::size_t(7), std::size_t(4096)}) {
        Bytes frame = GoodRequest();
        LSPAnalyzerMessage read;
        Feed(read, frame, pieceSize);
        ASSERT_TRUE(read.Deserialize());
        EXPECT_EQ(read.DataLength, 0);
        EXPECT_EQ(read.UserName, "DEMO\\alice");
        EXPECT_EQ(read.WindowTitle, "Main window");
        EXPECT_EQ(read.ImageSigner, "Demo Signer");
        EXPECT_EQ(read.LocalPort, 50000);
        EXPECT_EQ(read.RemotePort, 443);
        EXPECT_EQ(read.SocketType, 1u);
        EXPECT_EQ(read.BytesSent, 0x1122334455667788u);
        EXPECT_EQ(read.Operation, OpConnect);
        EXPECT_EQ(read.MessageType, 1u);
        const auto* remote = reinterpret_cast<const sockaddr_in*>(&read.RemoteAddress);
        EXPECT_EQ(std::memcmp(&remote->sin_addr, "\xC0\x00\x02\x01", 4), 0);
        EXPECT_EQ(remote->sin_family, 0) << "the family is not on the wire";
    }
}

TEST(AnalyzerMessages, ResponseLayoutAndRoundTrip) {
    Bytes frame = GoodResponse();
    ASSERT_EQ(frame.size(), 156u);
    EXPECT_EQ(WordAt(frame, 8 + 4), 77u);
    EXPECT_EQ(WordAt(frame, 8 + 8), 5u);
    EXPECT_EQ(WordAt(frame, 8 + 12), 2u);
    EXPECT_EQ(WordAt(frame, 8 + 16), 0x22222222u);
    EXPECT_EQ(WordAt(frame, 8 + 144), 0x10u);
    LSPAnalyzerMessageResponse read;
    Feed(read, frame, 5);
    ASSERT_TRUE(read.Deserialize());
    EXPECT_EQ(read.RequestId, 77u);
    EXPECT_EQ(read.Action, ActionRedirect);
    EXPECT_EQ(read.Flags, kFlagKeepFlags);
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

TEST(AnalyzerMessages, EveryTruncationIsRefused) {
    const Bytes frames[] = {GoodRequest(), GoodResponse(), GoodResponse(20)};
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
        }
    }
}

TEST(AnalyzerMessages, LyingLengthWords) {
    const Bytes good = GoodResponse(20);
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
