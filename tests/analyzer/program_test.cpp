// The program itself: what it prints, writes and returns.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/analyzer/request_frames.h"
#include "tests/analyzer/running_program.h"
#include "tests/analyzer/system_files.h"
#include "tests/analyzer/test_client.h"
#include "tests/analyzer/test_folder.h"

namespace {

::testing::AssertionResult Says(const std::string& line, const std::string& part) {
    const bool found = line.find(part) != std::string::npos;
    return (found ? ::testing::AssertionSuccess() : ::testing::AssertionFailure()) << "in " << line;
}

std::uint16_t PortIn(const std::string& line) {
    return static_cast<std::uint16_t>(std::atoi(line.substr(line.rfind(':') + 1).c_str()));
}

TEST(AnalyzerProgram, ServesUntilItIsToldToStop) {
    const TestFolder folder;
    std::ofstream(folder / "rules.toml") << "[[rule]]\nname = \"no web\"\nport = 80\naction = \"refuse\"\n";
    for (const Stop stop : WaysToStop()) {
        RunningProgram program({"--port", "0", "--rules", folder / "rules.toml", "--port-file",
                                folder / "a/b/p_info", "--until-input-ends"});
        const std::string first = program.Line();
        ASSERT_EQ(first.rfind("listening on 127.0.0.1:", 0), 0u) << first;
        const std::uint16_t port = PortIn(first);
        std::ifstream file(folder / "a/b/p_info", std::ios::binary);
        const std::string written{std::istreambuf_iterator<char>(file), {}};
        EXPECT_EQ(written, std::string({static_cast<char>(port & 255), static_cast<char>(port >> 8), 0, 0}));

        TestClient client(port);
        AskedRequest asked;
        asked.port = 80;
        ASSERT_TRUE(client.Send(RequestFrame(asked)));
        const GivenAnswer answer = ReadAnswer(client.Receive(156));
        EXPECT_TRUE(answer.readable);
        EXPECT_EQ(answer.requestId, asked.messageId);
        EXPECT_EQ(answer.action, 1u);
        const std::string line = program.Line();
        EXPECT_TRUE(Says(line, "connect process 4321 user \"DEMO\\\\alice\""));
        EXPECT_TRUE(Says(line, "192.0.2.1:80 : refuse (\"no web\")"));
        program.Tell(stop);
        EXPECT_EQ(program.Status(), 0);
    }
}

TEST(AnalyzerProgram, RefusesWhatItCannotUse) {
    const TestFolder folder;
    std::ofstream(folder / "rules.toml") << "[[rule]]\nactoin = \"refuse\"\n";
    RunningProgram wrongRules({"--port", "0", "--rules", folder / "rules.toml"});
    EXPECT_TRUE(Says(wrongRules.Line(), "rules.toml:2:1: there is no key \"actoin\""));
    EXPECT_EQ(wrongRules.Status(), 2);
    EXPECT_EQ(RunningProgram({"--port", "65536"}).Status(), 2);
    EXPECT_EQ(RunningProgram({"--bogus"}).Status(), 2);
    EXPECT_EQ(RunningProgram({"--rules", ""}).Status(), 2);

    RunningProgram first({"--port", "0"});
    const std::string port = std::to_string(PortIn(first.Line()));
    RunningProgram second({"--port", port});
    EXPECT_TRUE(Says(second.Line(), "127.0.0.1:" + port + ": ")) << "the port is taken";
    EXPECT_EQ(second.Status(), 1);
}

TEST(AnalyzerProgram, RefusesWhatIsNoRegularFile) {
    const TestFolder folder;
    std::filesystem::create_directories(folder / "folder");
    std::vector<std::string> names = {"folder"};
    if (MakeFifo(folder / "fifo")) names.emplace_back("fifo");
    const std::size_t entries = folder.Entries();
    for (const std::string& name : names) {
        RunningProgram rules({"--port", "0", "--rules", folder / name});
        EXPECT_TRUE(Says(rules.Line(), "cannot read " + (folder / name) + ": it is no regular file"));
        EXPECT_EQ(rules.Status(), 2);
        RunningProgram portFile({"--port", "0", "--port-file", folder / name});
        EXPECT_TRUE(Says(portFile.Line(), "cannot write " + (folder / name) + ": it is no regular file"));
        EXPECT_EQ(portFile.Status(), 1);
        EXPECT_EQ(folder.Entries(), entries) << "nothing is left behind";
    }
    RunningProgram missing({"--port", "0", "--rules", folder / "none"});
    EXPECT_TRUE(Says(missing.Line(), "cannot read " + (folder / "none") + ": No such file or directory"));
}

/// What the program decides about a connect to port 80.
std::uint32_t ActionFor80(std::uint16_t port) {
    TestClient client(port);
    AskedRequest asked;
    asked.port = 80;
    const bool sent = client.Send(RequestFrame(asked));
    const GivenAnswer answer = ReadAnswer(client.Receive(156));
    EXPECT_TRUE(sent && answer.readable);
    return answer.action;
}

TEST(AnalyzerProgram, AnswersThoughNobodyReadsItsOutput) {
    RunningProgram program({"--port", "0", "--until-input-ends"});
    TestClient client(PortIn(program.Line()));
    AskedRequest asked;
    asked.user.assign(1000, 'u');
    // Ten times what a pipe takes.
    for (int count = 0; count < 640; ++count) {
        ASSERT_TRUE(client.Send(RequestFrame(asked)));
        ASSERT_TRUE(ReadAnswer(client.Receive(156)).readable) << count;
    }
    program.Tell(WaysToStop().back());
    EXPECT_EQ(program.Status(), 0);
}

TEST(AnalyzerProgram, ReadsItsRulesAgain) {
    const TestFolder folder;
    std::ofstream(folder / "rules.toml") << "[default]\naction = \"refuse\"\n";
    RunningProgram program({"--port", "0", "--rules", folder / "rules.toml"});
    const std::uint16_t port = PortIn(program.Line());
    EXPECT_EQ(ActionFor80(port), 1u);

    std::ofstream(folder / "rules.toml") << "[default]\naction = \"allow\"\n";
    if (!program.TellToReadRules()) GTEST_SKIP() << "not on this target";
    EXPECT_TRUE(Says(program.LineWith("rules"), "the rules were read again"));
    EXPECT_EQ(ActionFor80(port), 0u);

    std::ofstream(folder / "rules.toml") << "[default]\naction = \"refuze\"\n";
    program.TellToReadRules();
    EXPECT_TRUE(Says(program.LineWith("rules"), "rules.toml:2:10: there is no action"));
    EXPECT_EQ(ActionFor80(port), 0u) << "the rules before are kept";
}

}  // namespace
