// The server against clients of every kind: slow, hasty, half-closed, hostile. Its handler here echoes
// frames.
#include "analyzer/server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "analyzer/frame_handler.h"
#include "tests/analyzer/test_client.h"

namespace {

using Bytes = std::vector<unsigned char>;

/// A frame with `payload` bytes, the first of which says what the handler does with it.
Bytes Frame(unsigned char command, std::size_t payload = 1) {
    const auto length = static_cast<std::uint32_t>(8 + payload);
    Bytes frame(length, command);
    for (int byte = 0; byte < 4; ++byte)
        frame[byte] = static_cast<unsigned char>(length >> (8 * byte));
    return frame;
}

class EchoHandler : public FrameHandler {
  public:
    Reply OnFrame(const unsigned char* frame, std::size_t length, Bytes& out) override {
        Reply reply;
        if (frame[8] == 'c') {
            reply.kind = Reply::Kind::kClose;
        } else if (frame[8] != 'n') {
            out.insert(out.end(), frame, frame + length);
            reply.kind = Reply::Kind::kSend;
            reply.delayMilliseconds = frame[8] == 'd' ? 50 : frame[8] == 'w' ? kLongWait : 0;
        }
        if (out.size() > mostHeld_) mostHeld_ = out.size();
        return reply;
    }

    std::size_t MostHeld() const { return mostHeld_; }

  private:
    static constexpr std::uint32_t kLongWait = 600000;
    std::atomic<std::size_t> mostHeld_{0};
};

class ServerTest : public ::testing::Test {
  protected:
    void Start(const ServerLimits& limits = ServerLimits()) {
        server_ = std::make_unique<Server>(std::uint16_t(0), handler_, limits, nullptr);
        thread_ = std::thread([this] { server_->Run(); });
    }

    void TearDown() override {
        ExpectServing();
        server_->Stop();
        thread_.join();
    }

    /// Whatever a test did to it, the server still answers.
    void ExpectServing() {
        TestClient client(Port());
        EXPECT_TRUE(client.Send(Frame('e')));
        EXPECT_EQ(client.Receive(9), Frame('e'));
    }

    std::uint16_t Port() const { return server_->Port(); }

    /// The most bytes that were kept for one client.
    std::size_t MostHeld() const { return handler_.MostHeld(); }

  private:
    EchoHandler handler_;
    std::unique_ptr<Server> server_;
    std::thread thread_;
};

TEST_F(ServerTest, FramesMayArriveInAnyPieces) {
    Start();
    TestClient client(Port());
    const Bytes large = Frame('e', 200000);
    ASSERT_TRUE(client.Send(large, 0, 3));
    ASSERT_TRUE(client.Send(large, 3, 100));
    ASSERT_TRUE(client.Send(large, 100));
    EXPECT_EQ(client.Receive(large.size()), large);

    Bytes several;
    for (unsigned char command = 'e'; command < 'm'; ++command) {
        const Bytes frame = Frame(command, 500);
        several.insert(several.end(), frame.begin(), frame.end());
    }
    // The borders of the sends lie inside frames.
    ASSERT_TRUE(client.Send(several, 0, 510));
    ASSERT_TRUE(client.Send(several, 510, 1500));
    ASSERT_TRUE(client.Send(several, 1500));
    EXPECT_EQ(client.Receive(several.size()), several);
}

TEST_F(ServerTest, AHalfClosedClientStillGetsItsAnswers) {
    Start();
    TestClient client(Port());
    Bytes both = Frame('d');
    const Bytes quick = Frame('e');
    both.insert(both.end(), quick.begin(), quick.end());
    ASSERT_TRUE(client.Send(both));
    client.EndSending();
    EXPECT_EQ(client.Receive(9), quick) << "a delayed answer holds up nobody else";
    EXPECT_EQ(client.Receive(9), Frame('d'));
    EXPECT_TRUE(client.SeesEnd());

    TestClient unfinished(Port());
    ASSERT_TRUE(unfinished.Send(quick, 0, 5));
    unfinished.EndSending();
    EXPECT_TRUE(unfinished.SeesEnd());
}

TEST_F(ServerTest, AFrameThatEndsWithItsInputIsForgotten) {
    ServerLimits limits;
    limits.bufferedBytes = 100000;
    Start(limits);
    // Beside a frame that is kept it never fits, however its bytes arrive.
    const Bytes large = Frame('e', 120000);
    TestClient halfClosed(Port());
    // The answer that it is owed keeps the connection.
    Bytes bytes = Frame('w');
    bytes.insert(bytes.end(), large.begin(), large.begin() + 60000);
    ASSERT_TRUE(halfClosed.Send(bytes));
    halfClosed.EndSending();
    // Once the server has seen the end, there is room for another's frame.
    bool served = false;
    for (int tries = 0; tries < 1000 && !served; ++tries) {
        TestClient other(Port());
        served = other.Send(large) && other.Receive(large.size()) == large;
    }
    EXPECT_TRUE(served);
}

TEST_F(ServerTest, ImpossibleLengthsEndTheConnection) {
    Start();
    for (const Bytes& start : {Bytes{7, 0, 0, 0}, Bytes{0, 0, 0, 0}, Bytes{0xFF, 0xFF, 0xFF, 0x7F},
                               Bytes{1, 0, 0, 1}, Bytes{0xFF, 0xFF, 0xFF, 0xFF}, Bytes{'G', 'E', 'T', ' '}}) {
        TestClient client(Port());
        ASSERT_TRUE(client.Send(start));
        EXPECT_TRUE(client.SeesEnd());
    }
    TestClient closed(Port());
    ASSERT_TRUE(closed.Send(Frame('c')));
    EXPECT_TRUE(closed.SeesEnd());
}

TEST_F(ServerTest, AFrameThatNeverEndsLosesItsConnection) {
    ServerLimits limits;
    limits.frameMilliseconds = 50;
    Start(limits);
    TestClient idle(Port());
    TestClient stalled(Port());
    ASSERT_TRUE(stalled.Send(Frame('e', 100), 0, 20));
    EXPECT_TRUE(stalled.SeesEnd());
    // A connection between two frames may rest as long as it likes.
    ASSERT_TRUE(idle.Send(Frame('e')));
    EXPECT_EQ(idle.Receive(9), Frame('e'));
}

TEST_F(ServerTest, UnfinishedFramesOfAllTogetherAreBounded) {
    ServerLimits limits;
    limits.bufferedBytes = 100000;
    Start(limits);
    std::vector<std::unique_ptr<TestClient>> clients;
    const Bytes large = Frame('e', 90000);
    for (int count = 0; count < 3; ++count) {
        clients.push_back(std::make_unique<TestClient>(Port()));
        clients.back()->Send(large, 0, 60000);
    }
    // One of them may stay; what the others hold is too much.
    int ended = 0;
    for (const auto& client : clients) {
        client->Send(large, 60000);
        if (client->Receive(large.size()) != large) ++ended;
    }
    EXPECT_GT(ended, 0);
    EXPECT_LT(ended, 3);
}

TEST_F(ServerTest, AClientThatTakesNoAnswersIsNoLongerRead) {
    ServerLimits limits;
    limits.unsentBytes = 10000;
    Start(limits);
    TestClient client(Port());
    const Bytes frame = Frame('e', 50000);
    // Far beyond what the kernel keeps for both directions; without the bound all of it would be taken.
    client.SetSendPatience(200);
    std::size_t sent = 0;
    while (sent < 2000 && client.Send(frame))
        ++sent;
    EXPECT_LT(sent, 2000u);
    EXPECT_EQ(client.Receive(frame.size()), frame);
}

TEST_F(ServerTest, WhatASlowClientHasTakenIsNotKept) {
    ServerLimits limits;
    // More than the system takes at a time, so that there is always something left to send.
    limits.unsentBytes = 8u << 20;
    Start(limits);
    TestClient client(Port());
    const Bytes frame = Frame('e', 50000);
    constexpr std::size_t kFrames = 1000;
    std::thread sender([&] {
        for (std::size_t sent = 0; sent < kFrames; ++sent)
            ASSERT_TRUE(client.Send(frame));
    });
    // In small pieces, slower than it sends.
    constexpr std::size_t kPiece = 1000;
    std::size_t received = 0;
    for (std::size_t got = 1; got != 0 && received < kFrames * frame.size(); received += got)
        got = client.Receive(std::min(kPiece, kFrames * frame.size() - received)).size();
    sender.join();
    EXPECT_EQ(received, kFrames * frame.size());
    EXPECT_LT(MostHeld(), 3 * limits.unsentBytes);
}

TEST_F(ServerTest, ConnectionsAreBounded) {
    ServerLimits limits;
    limits.connections = 3;
    Start(limits);
    {
        std::vector<std::unique_ptr<TestClient>> clients;
        for (int count = 0; count < 3; ++count) {
            clients.push_back(std::make_unique<TestClient>(Port()));
            ASSERT_TRUE(clients.back()->Send(Frame('e')));
            ASSERT_EQ(clients.back()->Receive(9), Frame('e'));
        }
        TestClient tooMany(Port());
        EXPECT_TRUE(tooMany.SeesEnd());
        // Their ends are served before the next accept: the frames on them are seen in the order of the
        // events.
        for (const auto& client : clients) {
            client->EndSending();
            EXPECT_TRUE(client->SeesEnd());
        }
    }
}

}  // namespace
