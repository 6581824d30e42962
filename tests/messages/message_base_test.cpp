// The piece-level operations of a message: carried data, cutting a stream into frames, ownership.
#include "messages/message_base.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "messages/buffer_arena.h"
#include "messages/message_limits.h"
#include "tests/messages/frame_tools.h"

namespace {

Bytes Counting(std::size_t count, unsigned char first = 0) {
    Bytes bytes(count);
    for (unsigned char& byte : bytes)
        byte = first++;
    return bytes;
}

TEST(MessageBase, DataTravelsBetweenHeaderAndFieldsUpToTheLimit) {
    Bytes first = Counting(100);
    Bytes second = Counting(50, 100);
    const BufferPiece pieces[] = {{100, first.data()}, {50, second.data()}};
    const struct {
        std::uint32_t limit;
        std::uint32_t carried;
    } cases[] = {{120, 120}, {0, 150}, {100, 100}, {1, 1}, {1000, 150}};
    for (const auto& expected : cases) {
        LSPAnalyzerMessage request;
        ASSERT_TRUE(request.SetDataBuffers(pieces, 2, expected.limit, false));
        EXPECT_EQ(request.GetTotalLength(), 8 + expected.carried);
        Bytes frame = FrameOf(request);
        EXPECT_EQ(WordAt(frame, 0), frame.size());
        EXPECT_EQ(WordAt(frame, 4), 8 + expected.carried);

        LSPAnalyzerMessage received;
        Feed(received, frame, 33);
        ASSERT_TRUE(received.Deserialize());
        EXPECT_EQ(received.DataLength, static_cast<std::int32_t>(expected.carried));
        PieceArray data;
        ASSERT_TRUE(received.GetDataBuffers(data.pieces, data.count, false));
        EXPECT_EQ(data.Flat(), Counting(expected.carried));
    }
    LSPAnalyzerMessageResponse cut;
    Bytes half(4);
    Feed(cut, half);
    PieceArray none;
    EXPECT_FALSE(cut.GetDataBuffers(none.pieces, none.count, false)) << "not even a header";
    LSPAnalyzerMessage untouched;
    EXPECT_TRUE(untouched.SetDataBuffers(nullptr, 3, 0, true));
    EXPECT_EQ(FrameOf(untouched).size(), 328u);
}

/// Two frames arrive in fixed-size reads that don't respect their borders; the second is cut off the first
/// and both release what is theirs. Arena buffers as in the relay: a leak or a double release shows in the
/// arena's state.
TEST(MessageBase, AStreamIsCutIntoFramesThatOwnTheirPartOfTheBuffers) {
    Bytes data = Counting(5000);
    const BufferPiece carried{static_cast<std::uint32_t>(data.size()), data.data()};
    LSPAnalyzerMessageResponse first;
    LSPAnalyzerMessageResponse second;
    first.RequestId = 1;
    second.RequestId = 2;
    ASSERT_TRUE(first.SetDataBuffers(&carried, 1, 0, false));
    Bytes stream = FrameOf(first);
    const std::size_t firstLength = stream.size();
    const Bytes tail = FrameOf(second);
    stream.insert(stream.end(), tail.begin(), tail.end());

    for (const std::size_t readSize : {std::size_t(64), std::size_t(4096), firstLength, firstLength - 3}) {
        SCOPED_TRACE(readSize);
        DestroyBufferArena();
        ASSERT_TRUE(TheBufferArena().Init(131072));
        {
            LSPAnalyzerMessageResponse head(ArenaAlloc, ArenaFree);
            LSPAnalyzerMessageResponse rest(ArenaAlloc, ArenaFree);
            ASSERT_TRUE(head.ClearBuffers());
            for (std::size_t at = 0; at < stream.size(); at += readSize) {
                const std::size_t length = std::min(readSize, stream.size() - at);
                unsigned char* memory = ArenaAlloc(static_cast<std::uint32_t>(readSize));
                std::memcpy(memory, stream.data() + at, length);
                ASSERT_TRUE(head.AddDataBuffer({static_cast<std::uint32_t>(readSize), memory}, true));
            }
            ASSERT_TRUE(head.SetTotalLength(static_cast<std::uint32_t>(stream.size())));
            const std::int32_t excess = head.GetExcessLength();
            ASSERT_EQ(excess, static_cast<std::int32_t>(tail.size()));
            PieceArray taken;
            head.GetSubBuffers(head.GetTotalLength() - excess, excess, taken.pieces, taken.count, false,
                               true);
            ASSERT_NE(taken.count, 0u);
            ASSERT_TRUE(ArenaMarkAllocated(taken.pieces[0].data));
            ASSERT_TRUE(rest.SetBuffers(taken.pieces, taken.count, true));
            ASSERT_TRUE(head.SetTotalLength(head.GetTotalLength() - excess));
            ASSERT_TRUE(head.Deserialize());
            EXPECT_EQ(head.RequestId, 1u);
            EXPECT_EQ(head.DataLength, 5000);
            head.ReleaseBuffers();
            ASSERT_TRUE(rest.Deserialize()) << "the first frame's release must not touch the second";
            EXPECT_EQ(rest.RequestId, 2u);
        }
        for (const ArenaBlock& block : TheBufferArena().BlocksForTest())
            EXPECT_TRUE(block.liveStarts.empty());
    }
    DestroyBufferArena();
}

TEST(MessageBase, WhatIsKnownOfAFrameEndsWithIt) {
    Bytes frame = ResponseFrame(1, 20);
    Bytes more(8);
    const BufferPiece piece{8, more.data()};
    const std::function<void(MessageBase&)> changes[] = {
        [](MessageBase& message) { message.ClearBuffers(); },
        [](MessageBase& message) { message.SetTotalLength(160); },
        [&](MessageBase& message) { message.AddDataBuffer(piece, false); },
        [&](MessageBase& message) { message.AddReceivedBytes(piece); },
        [&](MessageBase& message) { message.SetBuffers(&piece, 1, false); },
        [&](MessageBase& message) { message.SetDataBuffers(&piece, 1, 0, false); },
        [](MessageBase& message) { message.ResetHeader(); },
        [&](MessageBase& message) {
            SetWord(frame, 4, 1000);
            EXPECT_FALSE(message.Deserialize());
        },
    };
    for (const auto& change : changes) {
        LSPAnalyzerMessageResponse response;
        Feed(response, frame);
        ASSERT_TRUE(response.Deserialize());
        ASSERT_EQ(response.DataLength, 20);
        change(response);
        EXPECT_EQ(response.DataLength, -1) << "change " << &change - changes;
    }
}

TEST(MessageBase, FailingOperationsLeaveTheMessageUsable) {
    struct : LSPAnalyzerMessage {
        using MessageBase::ReadBytes;
    } reader;
    reader.ClearBuffers();
    unsigned char untouched = 0;
    EXPECT_THROW(reader.ReadBytes(&untouched, 1), MessageError);

    LSPAnalyzerMessageResponse response;
    PieceArray part;
    response.GetSubBuffers(5, 10, part.pieces, part.count, true, true);
    EXPECT_EQ(part.pieces, nullptr);
    EXPECT_EQ(part.count, 0u);
    EXPECT_FALSE(response.SetTotalLength(9));

    // Lengths that sum up past 32 bits must not wrap: reads would then trust a small total.
    unsigned char byte = 0;
    const BufferPiece huge[] = {{0xFFFFFFFE, &byte}, {16, &byte}};
    EXPECT_FALSE(response.SetBuffers(huge, 2, false));
    EXPECT_EQ(response.GetTotalLength(), 0u) << "pieces that the caller keeps must not be used any more";
    EXPECT_FALSE(response.SetDataBuffers(huge, 2, 0, true));
    EXPECT_EQ(response.GetTotalLength(), 0u);
    response.ReleaseBuffers();
    response.ResetHeader();
    response.ResetFields();
    EXPECT_EQ(FrameOf(response).size(), 156u);
}

}  // namespace
