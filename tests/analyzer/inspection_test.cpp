// The analyzer's part in split connections, over a real connection: what the layer tells it of, and what it
// has done in return.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "analyzer/decision.h"
#include "analyzer/line_writer.h"
#include "analyzer/server.h"
#include "tests/analyzer/request_frames.h"
#include "tests/analyzer/test_client.h"
#include "tests/support/seeded_random.h"

namespace {

using Bytes = std::vector<unsigned char>;

/// What the layer tells: "c:bytes" and "s:bytes" of what came from client and server, "c." and "s." of their
/// ends, "x" that the application's socket was closed, "?" a question about a bind.
std::string MessageFor(const std::string& step) {
    AskedRequest asked;
    const bool client = step[0] == 'c';
    asked.operation = client ? 9 : 10;
    if (step == "?" || step == "x") {
        asked.operation = step == "?" ? 11 : 2;
    } else if (step[1] == '.') {
        asked.operation = client ? 7 : 8;
    } else {
        asked.data = step.substr(2);
    }
    const Bytes frame = RequestFrame(asked);
    return {frame.begin(), frame.end()};
}

/// What an answer says, in the same language: "to c:bytes", "to s:bytes", "close c", "close s", "answer".
std::string AnswerText(const GivenAnswer& answer) {
    EXPECT_TRUE(answer.readable);
    EXPECT_LE(answer.data.size(), 64u * 1024);
    switch (answer.action) {
        case 3:
        case 4:
            EXPECT_EQ(answer.requestId, 0u) << "nobody waits for it";
            return std::string(answer.action == 3 ? "to c:" : "to s:") + answer.data;
        case 5:
            return "close c";
        case 6:
            return "close s";
        default:
            return "answer";
    }
}

class InspectionTest : public ::testing::Test {
  protected:
    /// The analyzer with one rule; its clock stands until it is put forward.
    void Start(const std::string& rule) {
        Stop();
        rules_ = RuleSet::FromText("[[rule]]\nname = \"it\"\n" + rule, "rules");
        writer_ = std::make_unique<LineWriter>(
            [this](const std::string& bytes) {
                const std::lock_guard<std::mutex> hold(lock_);
                log_ += bytes;
                return true;
            },
            [](std::size_t) { return std::string(); });
        requestLog_ = std::make_unique<RequestLog>(writer_.get(), LogFormat::kReadable);
        decision_ = std::make_unique<Decision>(rules_, requestLog_.get());
        server_ = std::make_unique<Server>(
            std::uint16_t(0), *decision_, ServerLimits(), [](const std::string&) {},
            [this] { return std::chrono::steady_clock::time_point(std::chrono::milliseconds(now_)); });
        thread_ = std::thread([this] {
            while (server_->Run()) {
                const std::lock_guard<std::mutex> hold(lock_);
                if (newRules_) rules_ = *newRules_;
                newRules_.reset();
                ++rounds_;
            }
        });
        client_ = std::make_unique<TestClient>(server_->Port());
        AskedRequest connect;
        ASSERT_TRUE(client_->Send(RequestFrame(connect)));
        const GivenAnswer answer = NextAnswer();
        EXPECT_EQ(answer.requestId, connect.messageId);
        verdictFlags_ = answer.flags;
    }

    /// Ends the connection and the analyzer; the last line of its log.
    std::string Stop() {
        if (!server_) return "";
        client_.reset();
        server_->Stop();
        thread_.join();
        server_.reset();
        writer_.reset();
        const std::string lines = log_.substr(0, log_.size() - 1);
        log_.clear();
        return lines.substr(lines.rfind('\n') + 1);
    }

    void TearDown() override { Stop(); }

    void Advance(int milliseconds) {
        const int before = rounds_;
        now_ += milliseconds;
        server_->Interrupt();
        while (rounds_ == before)
            std::this_thread::yield();
    }

    void ReadAgain(const std::string& rule) {
        {
            const std::lock_guard<std::mutex> hold(lock_);
            newRules_ = RuleSet::FromText("[[rule]]\n" + rule, "rules");
        }
        Advance(0);
    }

    /// Tells it in pieces of `piece` bytes.
    void Tell(const std::vector<std::string>& steps, std::size_t piece = SIZE_MAX) {
        std::string all;
        for (const std::string& step : steps)
            all += MessageFor(step);
        const Bytes bytes(all.begin(), all.end());
        piece = std::min(piece, bytes.size());
        for (std::size_t at = 0; at < bytes.size(); at += piece)
            ASSERT_TRUE(client_->Send(bytes, at, at + piece));
    }

    GivenAnswer NextAnswer() {
        Bytes frame = client_->Receive(4);
        if (frame.size() != 4) return {};
        std::uint32_t length = 0;
        std::memcpy(&length, frame.data(), sizeof(length));
        const Bytes rest = client_->Receive(length - 4);
        frame.insert(frame.end(), rest.begin(), rest.end());
        return ReadAnswer(frame);
    }

    /// All answers up to that of a question; what goes to one side in a row is joined.
    std::vector<std::string> Answers() {
        std::vector<std::string> answers;
        for (;;) {
            const GivenAnswer next = NextAnswer();
            const std::string text = AnswerText(next);
            if (text == "answer") return answers;
            const bool joins = text.size() > 5 && text[4] == ':' && !answers.empty() &&
                               answers.back().compare(0, 5, text, 0, 5) == 0;
            joins ? void(answers.back() += text.substr(5)) : answers.push_back(text);
        }
    }

    std::uint32_t verdictFlags_ = 0;
    std::unique_ptr<TestClient> client_;

  private:
    RuleSet rules_;  // the server's thread's while it runs

    std::mutex lock_;
    std::string log_;                  // under lock_
    std::optional<RuleSet> newRules_;  // under lock_
    std::unique_ptr<LineWriter> writer_;
    std::unique_ptr<RequestLog> requestLog_;
    std::unique_ptr<Decision> decision_;
    std::atomic<int> now_{1000};
    std::atomic<int> rounds_{0};
    std::unique_ptr<Server> server_;
    std::thread thread_;
};

constexpr char kReplaceRule[] =
    "[[rule.content]]\nfrom = \"server\"\npattern = \"colou?r\"\nthen = \"replace\"\nwith = \"paint\"\n"
    "[[rule.content]]\nfrom = \"client\"\npattern = \"secret\"\nignore_case = true\nthen = \"replace\"\n"
    "with = \"\"\n";

std::string EndRule(const std::string& then) {
    return "[[rule.content]]\nfrom = \"server\"\npattern = \"virus\"\nthen = \"" + then + "\"\n";
}

using Lines = std::vector<std::string>;

struct Talk {
    std::string rule;
    std::uint32_t flags;
    Lines told;
    Lines answered;
    std::string logged;
};

const std::vector<Talk>& Talks() {
    static const std::vector<Talk> talks = {
        {"flags = \"inspect\"",
         0x04,
         {"c:hello", "s:world", "c:!", "s.", "c."},
         {"to s:hello", "to c:world", "to s:!", "close c", "close s"},
         "client sent 6 passed 6 server sent 5 passed 5 : passed"},
        {"flags = \"relay\"",
         0x08,
         {"x", "c.", "s.", "c.", "s."},
         {"close s", "close c"},
         "client sent 0 passed 0 server sent 0 passed 0 : passed"},
        {"flags = \"inspect\"",
         0x04,
         {"c:a", "c.", "s:late", "c:later", "s."},
         {"to s:a", "close s", "close c"},
         "client sent 6 passed 1 server sent 4 passed 0 : passed"},
        {kReplaceRule,
         0x04,
         {"s:a col", "c:SEC", "s:our", "c:ret", "s: col", "s."},
         {"to c:a paint col", "close c"},
         "client sent 6 passed 0 server sent 12 passed 11 : replaced 2"},
        {EndRule("refuse"),
         0x04,
         {"c:get", "s:a vi", "s:rus!", "s:more", "c:more", "c.", "s."},
         {"to s:get", "to c:a ", "close c", "close s"},
         "client sent 7 passed 3 server sent 12 passed 2 : refused"},
        {EndRule("cut-client"),
         0x04,
         {"s:virus", "c:last", "x"},
         {"close c", "to s:last", "close s"},
         "client sent 4 passed 4 server sent 5 passed 0 : cut client"},
        {EndRule("cut-server"),
         0x04,
         {"s:a virus", "s:more", "c:x", "s.", "c."},
         {"to c:a ", "close s", "close c"},
         "client sent 1 passed 0 server sent 11 passed 2 : cut server"},
        {"[rule.serve]\nstatus = 403\nbody = \"no\"",
         0x20,
         {"c:GET / HTT", "c:P/1.1\r\n\r\n", "c:GET", "c."},
         {"to c:HTTP/1.1 403 Forbidden\r\nContent-Type: text/html; charset=utf-8\r\nContent-Length: 2\r\n"
          "Cache-Control: no-store\r\nConnection: close\r\n\r\nno",
          "close c", "close s"},
         ": served 403"},
        {"[rule.serve]\ntype = \"x/y\"\nbody = \"no\"",
         0x20,
         {"c:HEAD / HTTP/1.1\r\n\r\n"},
         {"to c:HTTP/1.1 200 OK\r\nContent-Type: x/y\r\nContent-Length: 2\r\n"
          "Cache-Control: no-store\r\nConnection: close\r\n\r\n",
          "close c"},
         ": served 200"},
        {"[rule.serve]\nbody = \"no\"", 0x20, {"c:\x16\x03\x01"}, {"close c"}, ": passed"},
        {"[rule.serve]\nbody = \"no\"", 0x20, {"c:GET", "c."}, {"close s"}, ": passed"},
    };
    return talks;
}

TEST_F(InspectionTest, EverythingToldIsAnsweredByTheRule) {
    for (const Talk& talk : Talks()) {
        for (const std::size_t piece : {SIZE_MAX, std::size_t(700), std::size_t(1)}) {
            SCOPED_TRACE(talk.rule + talk.told.front() + ", pieces of " + std::to_string(piece));
            Start(talk.rule);
            EXPECT_EQ(verdictFlags_, talk.flags);
            Tell(talk.told, piece);
            Tell({"?"});
            EXPECT_EQ(Answers(), talk.answered);
            const std::string line = Stop();
            EXPECT_NE(line.find(" inspected process 4321 user "), std::string::npos) << line;
            EXPECT_NE(line.find(talk.logged + " (\"it\")"), std::string::npos) << line;
        }
    }
}

TEST_F(InspectionTest, WhatIsHeldComesInOrderWhenItsTimeHasCome) {
    Start("hold_ms = 500\n" + EndRule("refuse"));
    Tell({"c:one", "s:two", "?"});
    EXPECT_EQ(Answers(), Lines());
    Advance(300);
    Tell({"c:three", "c.", "s:virus", "?"});
    EXPECT_EQ(Answers(), Lines());
    Advance(199);
    Tell({"?"});
    EXPECT_EQ(Answers(), Lines());
    Advance(1);
    Tell({"?"});
    EXPECT_EQ(Answers(), Lines({"to s:one", "to c:two"}));
    Advance(300);
    Tell({"?"});
    EXPECT_EQ(Answers(), Lines({"to s:three", "close s"})) << "the end comes behind what was held";
}

TEST_F(InspectionTest, NobodyWaitsLongForTheEndOfABeginning) {
    Start(kReplaceRule);
    Tell({"s:give me a colo", "?"});
    EXPECT_EQ(Answers(), Lines({"to c:give me a "}));
    Advance(25);
    Tell({"s:u", "c:x", "?"});
    EXPECT_EQ(Answers(), Lines({"to s:x"})) << "more has come of it";
    Advance(25);
    Tell({"?"});
    EXPECT_EQ(Answers(), Lines());
    Advance(25);
    Tell({"s:r!", "?"});
    EXPECT_EQ(Answers(), Lines({"to c:colour!"})) << "half of it was gone";
}

TEST_F(InspectionTest, RulesThatAreReadAgainLeaveBegunConnectionsAlone) {
    Start(kReplaceRule);
    Tell({"s:color", "?"});
    EXPECT_EQ(Answers(), Lines({"to c:paint"}));
    ReadAgain("action = \"refuse\"");
    Tell({"s:, color", "s.", "?"});
    EXPECT_EQ(Answers(), Lines({"to c:, paint", "close c"}));
}

TEST_F(InspectionTest, ALongStreamComesThroughWhole) {
    for (const std::string& rule : {std::string("flags = \"inspect\""), std::string(kReplaceRule)}) {
        Start(rule);
        SeededRandom random;
        std::string sent;
        std::vector<std::string> steps;
        for (int count = 0; count < 1000; ++count) {
            std::string part(1 + random.Below(4096), ' ');
            for (char& byte : part)
                byte = static_cast<char>('A' + random.Below(26));
            sent += part;
            steps.push_back("s:" + part);
        }
        steps.insert(steps.end(), {"s.", "?"});
        std::thread teller([&] { Tell(steps); });
        const Lines answers = Answers();
        teller.join();
        ASSERT_EQ(answers.size(), 2u);
        EXPECT_TRUE(answers[0] == "to c:" + sent);
    }
}

TEST_F(InspectionTest, APageOfAnySizeIsSplit) {
    Start("[rule.serve]\nbody = \"" + std::string(300000, 'p') + "\"");
    Tell({"c:GET / HTTP/1.0\r\n\r\n", "?"});
    const Lines answers = Answers();
    ASSERT_EQ(answers.size(), 2u);
    EXPECT_EQ(answers[0].substr(answers[0].find("\r\n\r\n") + 4), std::string(300000, 'p'));
    EXPECT_EQ(answers[1], "close c");
}

TEST_F(InspectionTest, FramesThatTheLayerNeverSendsEndTheConnection) {
    Start("flags = \"inspect\"");
    Tell({"c:" + std::string(256 * 1024, 'x'), "?"});
    EXPECT_EQ(Answers().size(), 1u);
    Tell({"c:" + std::string(256 * 1024 + 1, 'x')});
    EXPECT_TRUE(client_->SeesEnd());
}

TEST_F(InspectionTest, WhateverIsToldNothingGoesToASideThatHasEnded) {
    SeededRandom random;
    const Lines possible = {
        "c:secret GET / HTTP\r\n\r\n", "s:virus colour", "c.", "s.", "c:se", "s:vir", "s:us"};
    for (int round = 0; round < 60; ++round) {
        SCOPED_TRACE(random.Seed());
        const std::vector<std::string> rules = {"flags = \"inspect\"", kReplaceRule, EndRule("refuse"),
                                                EndRule("cut-client"), "[rule.serve]\nbody = \"no\""};
        Start(rules[random.Below(5)]);
        Lines told;
        for (int count = 0; count < 12; ++count)
            told.push_back(possible[random.Below(static_cast<std::uint32_t>(possible.size()))]);
        told.insert(told.end(), {"c.", "s.", "?"});
        Tell(told);
        bool closed[2] = {};
        for (const std::string& answer : Answers()) {
            const bool client = answer.find(" c") == answer.size() - 2 || answer.compare(0, 5, "to c:") == 0;
            EXPECT_FALSE(closed[client]) << answer;
            if (answer[0] == 'c') closed[client] = true;
        }
        EXPECT_TRUE(closed[0] && closed[1]);
    }
}

}  // namespace
