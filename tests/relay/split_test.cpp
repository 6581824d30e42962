// What passes through a split connection, whoever ends it.
#include "tests/relay/split_fixture.h"

namespace {

class Split : public SplitFixture {};

TEST_F(Split, BytesGoBothWaysAsTheVerdictSays) {
    const struct {
        const char* name;
        std::uint32_t flags;
        Inspector inspector;
        const char* atServer;
        const char* atClient;
    } rows[] = {
        {"forwarded", kForward, Inspector::kHold, "question", "answer"},
        {"inspected", kInspect, Inspector::kPassOn, "question", "answer"},
        {"changed", kInspect, Inspector::kChange, "QUESTION", "ANSWER"},
    };
    StartWinsock();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        analyzer_.SetScript(Splitting(row.flags, row.inspector));
        LoopbackStream server;
        const SOCKET s = ConnectSplit(server);
        EXPECT_EQ(PeerName(s), "203.0.113.10:80");
        EXPECT_TRUE(SendAll(s, "question"));
        EXPECT_EQ(ReadText(server, 8), row.atServer);
        EXPECT_TRUE(server.WriteAll("answer", 6));
        EXPECT_EQ(ReceiveText(s, 6), row.atClient);
        // The relay has one order of bytes only: what was urgent is in its place among them.
        EXPECT_EQ(send(s, "urgent", 6, MSG_OOB), 6);
        EXPECT_EQ(ReadText(server, 6), row.inspector == Inspector::kChange ? "URGENT" : "urgent");
        EXPECT_EQ(closesocket(s), 0);
        EXPECT_EQ(ReadText(server, 1), "");
    }
}

}  // namespace
