// The server against clients of every kind: slow, hasty, half-closed, hostile. Its handler here echoes
// frames.
#include "analyzer/server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "analyzer/frame_handler.h"
#include "tests/analyzer/test_client.h"

namespace {

using Bytes = std::vector<unsigned char>;

/// A frame with `payload` bytes, the first of which says what the handler does with it, and is the process.
Bytes Frame(unsigned char command, std::size_t payload = 1) {
    const auto length = static_cast<std::uint32_t>(8 + payload);
    Bytes frame(length, command);
    for (int byte = 0; byte < 4; ++byte)
        frame[byte] = static_cast<unsigned char>(length >> (8 * byte));
    return frame;
}

class EchoHandler : public FrameHandler {
  public:
    explicit EchoHandler(std::atomic<std::size_t>& mostHeld) : mostHeld_(mostHeld) {}

    Reply OnFrame(const unsigned char* frame, std::size_t length, Bytes& out) override {
        Reply reply;
        processId_ = frame[8];
        if (frame[8] == 'c') {
            reply.kind = Reply::Kind::kClose;
        } else if (frame[8] != 'n') {
            out.insert(out.end(), frame, frame + length);
            reply.kind = Reply::Kind::kSend;
            reply.delayMilliseconds = frame[8] == 'd' ? 50 : frame[8] == 'w' ? kLongWait : 0;
        }
        if (frame[8] == 't') reply.callMilliseconds = kLongWait;
        if (out.size() > mostHeld_) mostHeld_ = out.size();
        return reply;
    }

    Reply OnTime(Bytes& out) override {
        const Bytes frame = Frame('T');
        out.insert(out.end(), frame.begin(), frame.end());
        Reply reply;
        reply.kind = Reply::Kind::kSend;
        return reply;
    }

    std::uint32_t ProcessId() const override { return processId_; }

  private:
    static constexpr std::uint32_t kLongWait = 600000;
    std::atomic<std::size_t>& mostHeld_;
    std::uint32_t processId_ = 0;
};

class EchoHandlers : public FrameHandlers {
  public:
    std::unique_ptr<FrameHandler> OnConnection() override { return std::make_unique<EchoHandler>(mostHeld_); }

    std::size_t MostHeld() const { return mostHeld_; }

  private:
    std::atomic<std::size_t> mostHeld_{0};
};

class ServerTest : public ::testing::Test {
  protected:
    void Start(const ServerLimits& limits = ServerLimits()) {
        const auto note = [this](const std::string& line) {
            const std::lock_guard<std::mutex> hold(lock_);
            notes_.push_back(line);
        };
        server_ = std::make_unique<Server>(std::uint16_t(0), handlers_, limits, note, [this] {
            return std::chrono::steady_clock::now() + std::chrono::milliseconds(advance_);
        });
        thread_ = std::thread([this] {
            while (server_->Run())
                ++rounds_;
        });
    }

    /// Puts the server's clock forward and lets the server notice.
    void Advance(int milliseconds) {
        const int before = rounds_;
        advance_ += milliseconds;
        server_->Interrupt();
        while (rounds_ == before)
            std::this_thread::yield();
    }

    std::vector<std::string> Notes() {
        const std::lock_guard<std::mutex> hold(lock_);
        return notes_;
    }

    void TearDown() override {
        ExpectServing();
        server_->Stop();
        thread_.join();
    }

    /// Whatever a test did to it, the server still answers.
    void ExpectServing() {
        TestClient client(Port());
        EXPECT_TRUE(IsAnswered(client));
    }

    static bool IsAnswered(TestClient& client, unsigned char command = 'e') {
        return client.Send(Frame(command)) && client.Receive(9) == Frame(command);
    }

    /// Clients that have connected one after the other.
    std::vector<std::unique_ptr<TestClient>> Clients(int count) const {
        std::vector<std::unique_ptr<TestClient>> clients;
        for (; count > 0; --count)
            clients.push_back(std::make_unique<TestClient>(Port()));
        return clients;
    }

    std::uint16_t Port() const { return server_->Port(); }

    /// The most bytes that were kept for one client.
    std::size_t MostHeld() const { return handlers_.MostHeld(); }

  private:
    EchoHandlers handlers_;
    std::mutex lock_;
    std::vector<std::string> notes_;
    std::atomic<int> advance_{0};
    std::atomic<int> rounds_{0};
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

TEST_F(ServerTest, AHandlerIsCalledWhenItWants) {
    Start();
    TestClient client(Port());
    ASSERT_TRUE(IsAnswered(client, 't'));
    Advance(599000);
    ASSERT_TRUE(IsAnswered(client, 't')) << "a later wish puts nothing off";
    Advance(1000);
    EXPECT_EQ(client.Receive(9), Frame('T'));
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
    Start();
    TestClient idle(Port());
    TestClient stalled(Port());
    Bytes frames = Frame('e');
    frames.resize(12, 200);
    ASSERT_TRUE(stalled.Send(frames));
    EXPECT_EQ(stalled.Receive(9), Frame('e'));
    ASSERT_TRUE(IsAnswered(idle));
    Advance(29000);
    Advance(2000);
    EXPECT_TRUE(stalled.SeesEnd());
    EXPECT_TRUE(IsAnswered(idle)) << "between two frames it may rest as long as it likes";
}

TEST_F(ServerTest, AConnectionThatAsksNothingIsClosed) {
    Start();
    TestClient silent(Port());
    TestClient late(Port());
    TestClient half(Port());
    TestClient talking(Port());
    ASSERT_TRUE(half.Send(Frame('e'), 0, 5));
    ASSERT_TRUE(IsAnswered(talking)) << "the others were accepted before it";
    Advance(9000);
    ASSERT_TRUE(IsAnswered(late));
    EXPECT_TRUE(Notes().empty());
    Advance(1000);
    EXPECT_TRUE(silent.SeesEnd());
    EXPECT_TRUE(half.SeesEnd());
    EXPECT_TRUE(IsAnswered(late));
    const std::vector<std::string> notes = Notes();
    ASSERT_EQ(notes.size(), 2u);
    EXPECT_EQ(notes[0], "connection of port " + std::to_string(silent.Port()) +
                            " closed: it asked nothing in 10000 ms");
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

TEST_F(ServerTest, SilentConnectionsShutNobodyOut) {
    ServerLimits limits;
    limits.connections = 5;
    limits.connectionsOfOne = 3;
    Start(limits);
    TestClient before(Port());
    ASSERT_TRUE(IsAnswered(before));
    const auto silent = Clients(20);
    TestClient after(Port());
    EXPECT_TRUE(IsAnswered(after));
    for (std::size_t old = 0; old < 17; ++old)
        EXPECT_TRUE(silent[old]->SeesEnd()) << old;
    EXPECT_TRUE(IsAnswered(before));
    EXPECT_EQ(Notes()[0], "connection of port " + std::to_string(silent[0]->Port()) +
                              " closed: too many have asked nothing, and it is the oldest");
}

TEST_F(ServerTest, AProcessTakesNoMoreThanItsShare) {
    ServerLimits limits;
    limits.connectionsOfOne = 3;
    Start(limits);
    TestClient other(Port());
    ASSERT_TRUE(IsAnswered(other, 'o'));
    std::vector<std::unique_ptr<TestClient>> greedy;
    for (int count = 0; count < 4; ++count) {
        greedy.push_back(std::make_unique<TestClient>(Port()));
        ASSERT_TRUE(IsAnswered(*greedy.back(), 'g')) << "its questions are answered all the same";
    }
    EXPECT_TRUE(greedy[0]->SeesEnd());
    const std::vector<std::string> notes = Notes();
    ASSERT_EQ(notes.size(), 1u);
    EXPECT_EQ(notes[0], "connection of process 103, port " + std::to_string(greedy[0]->Port()) +
                            " closed: its process has too many, and it has rested longest");
    for (std::size_t kept = 1; kept < 4; ++kept)
        EXPECT_TRUE(IsAnswered(*greedy[kept], 'g'));
    EXPECT_TRUE(IsAnswered(other, 'o'));
}

TEST_F(ServerTest, WhenAllAreTooManyTheLongestRestedGoes) {
    ServerLimits limits;
    limits.connections = 3;
    Start(limits);
    const auto clients = Clients(3);
    // Under a name of its own each.
    for (unsigned char index = 0; index < 3; ++index)
        ASSERT_TRUE(IsAnswered(*clients[index], 'r' + index));
    ASSERT_TRUE(IsAnswered(*clients[0], 'r'));
    TestClient next(Port());
    EXPECT_TRUE(IsAnswered(next));
    EXPECT_TRUE(clients[1]->SeesEnd());
    EXPECT_TRUE(IsAnswered(*clients[0], 'r'));
    EXPECT_TRUE(IsAnswered(*clients[2], 't'));
    EXPECT_EQ(Notes().size(), 1u);
}

}  // namespace
