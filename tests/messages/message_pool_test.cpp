// The pool's limits and order, and what a reused message must not keep.
#include "messages/message_pool.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "messages/buffer_arena.h"
#include "messages/message_limits.h"
#include "tests/messages/frame_tools.h"

namespace {

class MessagePoolTest : public ::testing::Test {
  protected:
    void SetUp() override {
        DestroyMessagePool();
        TheBufferArena().Init(131072);
    }
    void TearDown() override {
        DestroyMessagePool();
        for (const ArenaBlock& block : TheBufferArena().BlocksForTest())
            EXPECT_TRUE(block.liveStarts.empty());
        DestroyBufferArena();
    }
};

TEST_F(MessagePoolTest, AReusedMessageIsAsGoodAsNew) {
    PooledRequest first = TakeRequest();
    PooledRequest second = TakeRequest();
    EXPECT_EQ((first->MessageId + 1) & 0xFFFF, second->MessageId & 0xFFFF);
    second.reset();

    LSPAnalyzerMessage* const used = first.get();
    const std::uint32_t usedId = used->MessageId;
    Bytes data(3000, 1);
    const BufferPiece piece{3000, data.data()};
    used->SetDataBuffers(&piece, 1, 0, false);
    used->UserName = "somebody";
    used->Operation = OpSend;
    used->HeaderSize = 0;
    EXPECT_EQ(FrameOf(*used).size(), 3000 + 328 + 8u);
    first.reset();

    PooledRequest again = TakeRequest();
    ASSERT_EQ(again.get(), used) << "the one returned last comes first";
    EXPECT_NE(again->MessageId, usedId);
    EXPECT_EQ(again->MessageType, 1u);
    EXPECT_EQ(again->Operation, 0u);
    EXPECT_EQ(FrameOf(*again).size(), 328u);
}

/// A frame of which every word is 4, so that each field that is read from it, a word, a block or a text, has
/// a value that no new message has.
Bytes FrameOfFours() {
    Bytes frame(2000);
    for (std::size_t at = 0; at < frame.size(); at += 4)
        SetWord(frame, at, 4);
    SetWord(frame, 0, static_cast<std::uint32_t>(frame.size()));
    SetWord(frame, 4, 8);
    return frame;
}

template <typename Message>
Bytes FrameWithoutId(Message& message) {
    message.MessageId = 0;
    return FrameOf(message);
}

TEST_F(MessagePoolTest, AReusedMessageKeepsNoField) {
    Bytes fours = FrameOfFours();
    PooledRequest request = TakeRequest();
    LSPAnalyzerMessage* const usedRequest = request.get();
    Feed(*request, fours);
    ASSERT_TRUE(request->Deserialize());
    ASSERT_EQ(request->WindowTitle + request->ImageSigner + request->UserName, "\4\4\4");
    // What is not on the wire.
    request->ProcessName = "C:\\app.exe";
    std::memset(&request->RemoteAddress, 4, sizeof(request->RemoteAddress));
    request.reset();
    request = TakeRequest();
    ASSERT_EQ(request.get(), usedRequest);
    LSPAnalyzerMessage newRequest;
    EXPECT_EQ(request->ProcessName, newRequest.ProcessName);
    EXPECT_EQ(std::memcmp(&request->RemoteAddress, &newRequest.RemoteAddress, sizeof(sockaddr_storage)), 0);
    EXPECT_EQ(request->DataLength, newRequest.DataLength);
    EXPECT_EQ(FrameWithoutId(*request), FrameWithoutId(newRequest));

    PooledResponse response = TakeResponse();
    LSPAnalyzerMessageResponse* const usedResponse = response.get();
    Feed(*response, fours);
    ASSERT_TRUE(response->Deserialize());
    response.reset();
    response = TakeResponse();
    ASSERT_EQ(response.get(), usedResponse);
    LSPAnalyzerMessageResponse newResponse;
    EXPECT_EQ(response->DataLength, newResponse.DataLength);
    EXPECT_EQ(FrameWithoutId(*response), FrameWithoutId(newResponse));
}

TEST_F(MessagePoolTest, MemoryGoesBackToWhereItCameFromWhenTheFunctionsChange) {
    const BufferAllocFunction allocs[] = {nullptr, ArenaAlloc, nullptr, ArenaAlloc};
    const BufferFreeFunction releases[] = {nullptr, ArenaFree, nullptr, ArenaFree};
    LSPAnalyzerMessageResponse* response = nullptr;
    for (int round = 0; round < 4; ++round) {
        response = MessagePool::GetResponse(allocs[round], releases[round]);
        EXPECT_EQ(FrameOf(*response).size(), 156u);
        MessagePool::ReturnResponse(response);
        EXPECT_EQ(response, nullptr);
    }
    MessagePool::ReturnResponse(response);
}

TEST_F(MessagePoolTest, KeepsOnlyAsManyAsTheLimit) {
    std::vector<PooledRequest> taken;
    for (std::uint32_t count = 0; count < kPoolLimit + 1; ++count)
        taken.push_back(TakeRequest());
    std::vector<LSPAnalyzerMessage*> order;
    for (PooledRequest& request : taken)
        order.push_back(request.get());
    taken.clear();
    // The last one was one too many: the one before it is on top.
    PooledRequest top = TakeRequest();
    EXPECT_EQ(top.get(), order[kPoolLimit - 1]);
}

TEST_F(MessagePoolTest, ThreadsTakeAndReturnAtOnce) {
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([] {
            for (int round = 0; round < 500; ++round) {
                PooledRequest request = TakeRequest();
                PooledResponse response = TakeResponse();
                request->Operation = static_cast<std::uint32_t>(round);
                Bytes frame = FrameOf(*request);
                ASSERT_EQ(WordAt(frame, 8 + 316), static_cast<std::uint32_t>(round));
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

}  // namespace
