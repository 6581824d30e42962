// An analyzer that turns against the relay on the spy socket of one connection. Only that connection suffers,
// its application sees an ordinary end, and a connection beside it goes on.
#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>

#include "tests/relay/split_fixture.h"

namespace {

using Frame = std::vector<std::uint8_t>;

constexpr std::uint32_t kClientDataReport = 9;
constexpr std::uint32_t kToClient = 3;
constexpr std::uint32_t kToServer = 4;
constexpr std::uint32_t kClosesClient = 5;
constexpr char kQuestion[] = "question";
constexpr std::size_t kHuge = 2u << 20;

Frame FrameOf(std::uint32_t action, const std::vector<std::uint8_t>& data, std::uint32_t requestId = 0) {
    ScriptedAnswer answer;
    answer.action = action;
    answer.requestId = requestId;
    answer.data = data;
    return AnswerFrame(answer);
}

Frame WithWords(Frame frame, std::uint32_t total, std::uint32_t dataEnd) {
    std::memcpy(frame.data(), &total, sizeof(total));
    std::memcpy(frame.data() + sizeof(total), &dataEnd, sizeof(dataEnd));
    return frame;
}

Frame operator+(Frame left, const Frame& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/// What is done about the question of the connection under attack.
using Attack = std::function<void(const SeenRequest&, AnalyzerConnection&)>;

Attack Sends(const std::function<Frame(const Frame& right)>& bytes) {
    return [bytes](const SeenRequest& request, AnalyzerConnection& connection) {
        connection.Send(bytes(FrameOf(kToServer, request.data, request.messageId)));
    };
}

Attack SendsHalf(const std::function<void(AnalyzerConnection&)>& thenEnds) {
    return [thenEnds](const SeenRequest& request, AnalyzerConnection& connection) {
        Frame right = FrameOf(kToServer, request.data, request.messageId);
        right.resize(right.size() / 2);
        connection.Send(right);
        thenEnds(connection);
    };
}

void SendByteByByte(const SeenRequest& request, AnalyzerConnection& connection) {
    for (const std::uint8_t byte : FrameOf(kToServer, request.data, request.messageId))
        connection.Send({byte});
}

/// Every byte of the question in a frame of its own, between frames that say nothing.
Frame ManyFrames(const Frame&) {
    Frame frames;
    for (const char* byte = kQuestion; *byte != '\0'; ++byte) {
        for (int i = 0; i < 50; ++i)
            frames = std::move(frames) + FrameOf(kToServer, {});
        frames = std::move(frames) + FrameOf(kToServer, {static_cast<std::uint8_t>(*byte)});
    }
    return frames;
}

Frame UnknownActionsFirst(const Frame& right) {
    Frame frames;
    for (const std::uint32_t action : {0u, 1u, 2u, 7u, 8u, 99u, 0xffffffffu})
        frames = std::move(frames) + FrameOf(action, {'x'}, action);
    return frames + right;
}

struct AttackRow {
    std::string name;
    Attack attack;
    std::string atServer;      ///< what reaches the server
    bool ends;                 ///< the application's connection ends without its doing
    bool serverStays = false;  ///< and the server's does not
};

std::vector<AttackRow> AttackRows() {
    const std::vector<std::uint8_t> question(kQuestion, kQuestion + 8);
    std::vector<AttackRow> rows = {
        {"byte by byte", SendByteByByte, kQuestion, false},
        {"many frames in one segment", Sends(ManyFrames), kQuestion, false},
        {"unknown actions first", Sends(UnknownActionsFirst), kQuestion, false},
        {"an answer to nobody", Sends([=](const Frame&) { return FrameOf(kToServer, question, 0x1234567); }),
         kQuestion, false},
        {"answered twice", Sends([](const Frame& right) { return right + right; }), "questionquestion",
         false},
        {"two mebibytes",
         Sends([](const Frame&) { return FrameOf(kToServer, std::vector<std::uint8_t>(kHuge, 'h')); }),
         std::string(kHuge, 'h'), false},
        {"the right answer, then noise", Sends([](const Frame& right) { return right + Frame(64, 0xee); }),
         kQuestion, true},
        {"no fields",
         Sends([](const Frame& right) { return WithWords(Frame(right.begin(), right.begin() + 8), 8, 8); }),
         "", true},
        {"fields that begin in the header",
         Sends([](const Frame& right) { return WithWords(right, 164, 7); }), "", false},
        {"closes unasked", Sends([](const Frame&) { return FrameOf(kClosesClient, {}); }), "", true, true},
        {"closes within a frame", SendsHalf([](AnalyzerConnection& spy) { spy.Close(); }), "", true, true},
        {"resets within a frame", SendsHalf([](AnalyzerConnection& spy) { spy.Reset(); }), "", true},
        {"silence within a frame", SendsHalf([](AnalyzerConnection&) {}), "", false},
    };
    const std::pair<std::uint32_t, std::uint32_t> lengths[] = {{0, 8},
                                                               {7, 7},
                                                               {0xffffffff, 8},
                                                               {0x80000000, 8},
                                                               {(16u << 20) + 1, 8},
                                                               {164, 165},
                                                               {164, 0xffffffff},
                                                               {160, 16}};
    for (const auto& [total, dataEnd] : lengths) {
        rows.push_back({"lengths " + std::to_string(total) + ", " + std::to_string(dataEnd),
                        Sends([total = total, dataEnd = dataEnd](const Frame& right) {
                            return WithWords(right, total, dataEnd);
                        }),
                        "", true});
    }
    return rows;
}

class SplitAdversary : public SplitFixture {
  protected:
    /// Data of the first connection is passed on; that of the others meets the attack.
    void AttackOthers(const Attack& attack) {
        const ScriptedAnalyzer::Script good = Splitting(kInspect);
        analyzer_.SetScript([=](const SeenRequest& request, AnalyzerConnection& connection) {
            const bool attacked = request.connection > 1 && request.operation == kClientDataReport;
            (attacked ? ScriptedAnalyzer::Script(attack) : good)(request, connection);
        });
    }

    /// The connection beside the one under attack.
    void ExpectBystanderGoesOn() {
        ASSERT_TRUE(SendAll(bystander_, "ping"));
        ASSERT_EQ(ReadText(bystandersServer_, 4), "ping");
        ASSERT_TRUE(bystandersServer_.WriteAll("pong", 4));
        ASSERT_EQ(ReceiveText(bystander_, 4), "pong");
    }

    SOCKET bystander_ = INVALID_SOCKET;
    LoopbackStream bystandersServer_;
};

TEST_F(SplitAdversary, HarmsNothingButItsConnection) {
    AttackOthers({});
    StartWinsock();
    bystander_ = ConnectSplit(bystandersServer_);
    for (const AttackRow& row : AttackRows()) {
        SCOPED_TRACE(row.name);
        AttackOthers(row.attack);
        LoopbackStream server;
        const SOCKET s = ConnectSplit(server);
        ASSERT_TRUE(SendAll(s, kQuestion));
        EXPECT_TRUE(ReadText(server, row.atServer.size()) == row.atServer);
        if (row.ends) {
            const std::string rest = ReceiveText(s, 1);
            EXPECT_TRUE(rest.empty() || rest == "[10054]" || rest == "[10053]") << rest;
        }
        ASSERT_NO_FATAL_FAILURE(ExpectBystanderGoesOn());
        EXPECT_EQ(closesocket(s), 0);
        if (row.ends && !row.serverStays) {
            EXPECT_EQ(ReadText(server, 1), "");
        }
    }
    EXPECT_EQ(closesocket(bystander_), 0);
}

/// The analyzer floods an application that does not read. What the relay has not taken stays with the
/// analyzer; and once the application has closed, the rest is dropped, so that the analyzer hears of it.
TEST_F(SplitAdversary, AFloodIsReadNoFurtherThanTheApplicationReads) {
    constexpr std::size_t kFrames = 4096;
    const auto sent = std::make_shared<std::atomic<std::size_t>>(0);
    const Frame frame = FrameOf(kToClient, std::vector<std::uint8_t>(16384, 'f'));
    AttackOthers([=](const SeenRequest&, AnalyzerConnection& connection) {
        while (*sent < kFrames && connection.Send(frame))
            ++*sent;
    });
    StartWinsock();
    bystander_ = ConnectSplit(bystandersServer_);
    LoopbackStream server;
    const SOCKET s = ConnectSplit(server);
    ASSERT_TRUE(SendAll(s, kQuestion));
    while (*sent < 64)
        std::this_thread::yield();
    for (int i = 0; i < 200; ++i)
        ASSERT_NO_FATAL_FAILURE(ExpectBystanderGoesOn());
    EXPECT_LT(*sent, kFrames / 2);
    EXPECT_EQ(closesocket(s), 0);
    EXPECT_EQ(ReadText(server, 1), "") << "its end is passed on by the analyzer";
    EXPECT_EQ(*sent, kFrames);
    EXPECT_EQ(closesocket(bystander_), 0);
}

}  // namespace
