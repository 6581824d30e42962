// Start-ups, clean-ups and classifications at the same time.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "protocols/byte_reader.h"
#include "protocols/pattern_gate.h"
#include "protocols/protocol_table.h"

namespace {

ProtocolSample Request() {
    ProtocolSample sample{};
    sample.clientData = "GET / HTTP/1.1\r\n";
    sample.clientLength = 16;
    return sample;
}

bool Recognised() {
    ProtocolSample sample = Request();
    return ClassifyConnection(sample) != 0 && sample.protocol == kProtocolHttp;
}

TEST(PatternGate, TheLastUserReleasesWhatWasRetired) {
    PatternGate gate;
    EXPECT_FALSE(gate.Enter());
    EXPECT_FALSE(gate.Retire());
    EXPECT_FALSE(gate.Leave());
    ASSERT_TRUE(gate.BeginCompile());
    EXPECT_FALSE(gate.Retire()) << "what is still being compiled stays";
    gate.Publish();
    EXPECT_FALSE(gate.BeginCompile());
    ASSERT_TRUE(gate.Enter());
    ASSERT_TRUE(gate.Enter());
    EXPECT_FALSE(gate.Retire());
    EXPECT_FALSE(gate.Enter()) << "retired patterns take no new users";
    EXPECT_FALSE(gate.Leave());
    EXPECT_FALSE(gate.Leave());
    EXPECT_FALSE(gate.BeginCompile()) << "retired patterns that are still in use become ready again";
    EXPECT_TRUE(gate.Enter());
    EXPECT_FALSE(gate.Leave());
    EXPECT_FALSE(gate.Retire());
    ASSERT_TRUE(gate.Leave());
    gate.Released();
    EXPECT_TRUE(gate.BeginCompile());
    gate.Abandon();
    EXPECT_TRUE(gate.BeginCompile());
}

TEST(PatternLifetime, EachConcurrentStartUpFindsThePatternsReady) {
    for (int round = 0; round < 20; ++round) {
        FreeProtocolPatterns();
        FreeProtocolPatterns();
        EXPECT_FALSE(Recognised());
        std::atomic<int> waiting{4};
        std::vector<std::thread> startUps;
        for (int i = 0; i < 4; ++i) {
            startUps.emplace_back([&] {
                for (--waiting; waiting > 0;)
                    std::this_thread::yield();
                EXPECT_EQ(0, CompileProtocolPatterns());
                EXPECT_TRUE(Recognised());
            });
        }
        for (std::thread& startUp : startUps)
            startUp.join();
    }
}

TEST(PatternLifetime, CleanUpsBesideClassifications) {
    std::atomic<bool> stop{false};
    std::atomic<int> recognised{0};
    std::vector<std::thread> users;
    for (int i = 0; i < 3; ++i) {
        users.emplace_back([&] {
            while (!stop)
                recognised += Recognised() ? 1 : 0;
        });
    }
    for (int round = 0; round < 300 || (recognised < 100 && round < 100000); ++round) {
        EXPECT_EQ(0, CompileProtocolPatterns());
        FreeProtocolPatterns();
    }
    stop = true;
    for (std::thread& user : users)
        user.join();
    EXPECT_FALSE(Recognised());
    EXPECT_EQ(0, CompileProtocolPatterns());
    EXPECT_TRUE(Recognised());
    FreeProtocolPatterns();
}

TEST(PatternLifetime, ValidatorsJudgeWithoutPatterns) {
    FreeProtocolPatterns();
    ProtocolSample sample{};
    sample.clientData = "\x80\x03\x01\x03\x01";
    sample.clientLength = 5;
    sample.remotePort = 443;
    EXPECT_EQ(1, ClassifyConnection(sample));
    EXPECT_EQ(kProtocolHttps, sample.protocol);
}

TEST(ByteReader, ReadsAcrossChunksAndTakesNothingWhenItFails) {
    ByteReader reader;
    std::uint8_t byte = 0;
    std::uint32_t value = 0;
    EXPECT_FALSE(reader.ReadByte(byte));
    const char* const letters[] = {"ab", "", "c", "de", "fgh"};
    for (int i = 0; i < ByteReader::kMaxChunks; ++i) {
        const char* text = i < 5 ? letters[i] : "";
        const auto length = static_cast<std::int32_t>(std::string(text).size());
        EXPECT_TRUE(reader.Append({i == 6 ? -3 : length, text}));
    }
    EXPECT_FALSE(reader.Append({1, "x"}));
    EXPECT_EQ(8u, reader.Remaining());
    ASSERT_TRUE(reader.ReadBigEndian(4, value));
    EXPECT_EQ(0x61626364u, value);
    EXPECT_TRUE(reader.Skip(2));
    EXPECT_FALSE(reader.ReadBigEndian(4, value));
    EXPECT_FALSE(reader.Skip(3));
    EXPECT_TRUE(reader.ReadByte(byte));
    EXPECT_EQ('g', byte);
    EXPECT_TRUE(reader.Skip(1));
    EXPECT_FALSE(reader.ReadByte(byte));
}

}  // namespace
