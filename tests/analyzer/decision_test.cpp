// From the frame of a request to what goes back, and what the log makes of it.
#include "analyzer/decision.h"

#include <gtest/gtest.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/analyzer/request_frames.h"

namespace {

constexpr char kRules[] = R"(
[[rule]]
port = 1
action = "refuse"
[[rule]]
port = 2
action = "redirect"
address = "127.0.0.1:41080"
flags = "keep"
exempt = true
[[rule]]
port = 3
behaviour = "silent"
[[rule]]
port = 4
behaviour = "garbage"
delay_ms = 7
[[rule]]
port = 5
behaviour = "close"
[[rule]]
port = 6
flags = ["report", "inspect"]
)";

struct Asked {
    AskedRequest request;
    Reply reply;
    std::uint32_t processId = 0;
    std::vector<unsigned char> out;
};

Asked Ask(std::uint16_t port, std::uint32_t operation = 12) {
    static const RuleSet rules = RuleSet::FromText(kRules, "rules");
    static Decision decision(rules, nullptr);
    Asked asked;
    asked.request.port = port;
    asked.request.operation = operation;
    const std::vector<unsigned char> frame = RequestFrame(asked.request);
    const std::unique_ptr<FrameHandler> conversation = decision.OnConnection();
    asked.reply = conversation->OnFrame(frame.data(), frame.size(), asked.out);
    asked.processId = conversation->ProcessId();
    return asked;
}

TEST(Decision, AnswersByRule) {
    Asked asked = Ask(1);
    GivenAnswer answer = ReadAnswer(asked.out);
    ASSERT_TRUE(answer.readable);
    EXPECT_EQ(answer.requestId, asked.request.messageId);
    EXPECT_EQ(asked.processId, asked.request.processId);
    EXPECT_EQ(answer.action, 1u);
    EXPECT_EQ(answer.flags, 0u);
    EXPECT_EQ(answer.exemptProcessId, 0u);

    asked = Ask(2);
    answer = ReadAnswer(asked.out);
    EXPECT_EQ(answer.action, 2u);
    EXPECT_EQ(answer.flags, 0x10u);
    EXPECT_EQ(answer.redirect, std::string("\x02\x00\xA0\x78\x7F\x00\x00\x01", 8));
    EXPECT_EQ(answer.exemptProcessId, 4321u);

    asked = Ask(443);
    answer = ReadAnswer(asked.out);
    EXPECT_TRUE(answer.readable);
    EXPECT_EQ(answer.action, 0u) << "nothing of the answer before may stay";
    EXPECT_EQ(answer.redirect, std::string(8, '\0'));
}

TEST(Decision, ATrafficReportChangesNoFlagsUnlessItsRuleSaysSo) {
    for (const std::uint32_t report : {3u, 4u, 5u, 6u})
        EXPECT_EQ(ReadAnswer(Ask(443, report).out).flags, 0x10u) << report;
    EXPECT_EQ(ReadAnswer(Ask(6, 5).out).flags, 0x06u);
    EXPECT_EQ(ReadAnswer(Ask(443, 11).out).flags, 0u) << "a bind is no report";
}

TEST(Decision, Behaviours) {
    EXPECT_EQ(Ask(3).reply.kind, Reply::Kind::kNone);
    EXPECT_EQ(Ask(5).reply.kind, Reply::Kind::kClose);
    const Asked garbage = Ask(4);
    EXPECT_EQ(garbage.reply.kind, Reply::Kind::kSend);
    EXPECT_EQ(garbage.reply.delayMilliseconds, 7u);
    std::size_t length = 0;
    EXPECT_FALSE(ReadFrameLength(garbage.out.data(), length));
    for (std::uint32_t report : {2u, 99u}) {
        EXPECT_EQ(Ask(1, report).reply.kind, Reply::Kind::kNone) << report;
    }
}

TEST(Decision, WhatIsNoRequestClosesTheConnection) {
    const RuleSet rules;
    Decision decisions(rules, nullptr);
    const std::unique_ptr<FrameHandler> conversation = decisions.OnConnection();
    FrameHandler& decision = *conversation;
    AskedRequest asked;
    const std::vector<unsigned char> good = RequestFrame(asked);
    for (std::size_t length = 8; length < good.size(); ++length) {
        std::vector<unsigned char> frame(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(length));
        frame[0] = static_cast<unsigned char>(length);
        frame[1] = static_cast<unsigned char>(length >> 8);
        std::vector<unsigned char> out;
        ASSERT_EQ(decision.OnFrame(frame.data(), frame.size(), out).kind, Reply::Kind::kClose) << length;
    }
    std::vector<unsigned char> insideHeader = good;
    insideHeader[4] = 7;
    std::vector<unsigned char> out;
    EXPECT_EQ(decision.OnFrame(insideHeader.data(), insideHeader.size(), out).kind, Reply::Kind::kClose);
    EXPECT_EQ(decision.OnFrame(good.data(), good.size(), out).kind, Reply::Kind::kSend)
        << "the next one is served";
}

TEST(RequestLog, TextsFromTheWireStayInsideTheirLine) {
    Request request;
    request.operation = 12;
    request.user = "eve\"\n2026-01-01 forged line";
    request.window = "\xFF\xFE broken \x1B[31m\x7F";
    request.signer = "\xC2\x9B\x32J \xC3\x9B";
    request.destination = {0xC0000201, 443};
    Rule rule;
    rule.name = "a rule";
    rule.verdict.action = RuleAction::kRedirect;
    rule.verdict.redirect = {0x7F000001, 80};
    for (const std::string& line : {ReadableLine("now", request, rule), JsonLine("now", request, rule)}) {
        for (const char c : line)
            EXPECT_TRUE(static_cast<unsigned char>(c) >= 0x20 && c != 0x7F) << line;
        EXPECT_EQ(line.find("\xC2\x9B"), std::string::npos) << line;
        EXPECT_NE(line.find("192.0.2.1:443"), std::string::npos);
    }
    EXPECT_EQ(nlohmann::json::parse(DroppedLine(LogFormat::kJson, 7))["dropped_lines"], 7);
    const nlohmann::json json = nlohmann::json::parse(JsonLine("now", request, rule));
    EXPECT_EQ(json["user"], request.user);
    EXPECT_EQ(json["signer"], request.signer);
    EXPECT_EQ(json["redirect"], "127.0.0.1:80");
    EXPECT_EQ(json["action"], "redirect");
}

}  // namespace
